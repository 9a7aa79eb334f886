// SPDX-License-Identifier: Apache-2.0
// What programs are told.
#pragma once

#include <string>

namespace kelvane::ctl {

/// A value of either kind of nlohmann's, on one line of ASCII: identifiers and paths need not be UTF-8, and may be what
/// a terminal obeys.
template <typename Json>
std::string jsonLine(const Json& json) {
  return json.dump(-1, ' ', true, Json::error_handler_t::replace);
}

}  // namespace kelvane::ctl
