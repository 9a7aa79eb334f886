// SPDX-License-Identifier: Apache-2.0
// Which unit of the service manager a control group belongs to.
#pragma once

#include <string_view>

namespace kelvane::ipc {

/// The unit that a path of the unified hierarchy lies in; empty when it lies in none that the service manager made. It
/// puts units into slices only, and gives those to nobody; what lies beneath anything else was made by whoever was
/// given that, and may have any name.
std::string_view unitOfControlGroup(std::string_view path);

}  // namespace kelvane::ipc
