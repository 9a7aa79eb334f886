// SPDX-License-Identifier: Apache-2.0
// The wish that the process read its configuration again.
#pragma once

namespace kelvane::reload {

/// For the main thread: waits for the next wish and has it fulfilled by the process's handler. Returns early when
/// another signal was handled.
void fulfilNext();

}  // namespace kelvane::reload
