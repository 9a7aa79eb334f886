// SPDX-License-Identifier: Apache-2.0
// The header of a message, before the library has seen it.
#pragma once

#include <cstdint>
#include <span>

namespace kelvane::ipc {

/// Makes of a complete message that came with one descriptor one that came with none: its header counts none, and its
/// signature has a number where the descriptor is among the arguments. The library, which never closes the descriptors
/// of a message it drops, then need not be given any. False when the header counts none, or more than one, or has what
/// no sender has a use for.
[[nodiscard]] bool hideDescriptor(std::span<std::uint8_t> message);

}  // namespace kelvane::ipc
