// SPDX-License-Identifier: Apache-2.0
// What calls that wait are told apart by.
#pragma once

#include <string>
#include <vector>

#include "platform/Ipc.h"

namespace kelvane::ipc {

/// The keys of the dictionaries among the arguments, in order. A call that waits can stand for an earlier one with the
/// same names. Any thread.
[[nodiscard]] std::vector<std::string> callNames(const Arguments& arguments);

}  // namespace kelvane::ipc
