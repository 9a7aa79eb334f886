// SPDX-License-Identifier: Apache-2.0
// Which unit of the service manager a control group belongs to.
#pragma once

#include <string_view>

namespace kelvane::ipc {

/// The unit that a path of the unified hierarchy lies in; empty when it lies in none. The first component
/// that names a unit counts: what lies beneath it was made by the unit itself, which may choose any name.
std::string_view unitOfControlGroup(std::string_view path);

}  // namespace kelvane::ipc
