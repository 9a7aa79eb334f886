// SPDX-License-Identifier: Apache-2.0
// What clients say before their first message.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace kelvane::ipc {

/// What the message library, which takes everybody at their word, is to be given for a line of this user's: the line,
/// or one that it rejects when the line names another user or none. With its end, and with the zero byte that
/// precedes the first.
[[nodiscard]] std::string vouchedLine(std::string_view line, uid_t user);

}  // namespace kelvane::ipc
