// SPDX-License-Identifier: Apache-2.0
// What stands beneath the options in the help of each command: examples and exit statuses.
#pragma once

#include <string>

namespace kelvane::ctl::helpText {

/// Of kelvanectl itself: how sizes are written, and every exit status.
std::string general();
std::string purge();
std::string cancel();
std::string runDaily();
std::string purgeable();
std::string state();
std::string stateGet();
std::string stateSet();
std::string stateUnset();
std::string stateList();

}  // namespace kelvane::ctl::helpText
