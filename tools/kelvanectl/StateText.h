// SPDX-License-Identifier: Apache-2.0
// What is in the state store, for people and for programs.
#pragma once

#include <string>

#include "platform/Value.h"

namespace kelvane::ctl {

/// A string as it stands, other values as in a property list, containers over several lines; of longer data only how
/// long it is. What a terminal would obey is escaped. Ends with a new line.
std::string stateText(const Value& value);
/// A line for each key: its value, or what kind of value it is where that is long.
std::string stateListText(const Value::Dictionary& state);
/// One line of ASCII. Data are strings of hexadecimal digits, dates strings as well.
std::string stateJson(const Value& value);

}  // namespace kelvane::ctl
