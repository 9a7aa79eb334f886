// SPDX-License-Identifier: Apache-2.0
// What requests and service names are on every platform.
#include "platform/Ipc.h"
#include "platform/Limits.h"

namespace kelvane::ipc {

bool isServiceName(std::string_view name) {
  return !name.empty() && name.size() <= limits::serviceNameBytes && !name.starts_with('.') &&
         name.find('/') == name.npos && name.find('\0') == name.npos;
}

const Value& Request::value(std::size_t index) const {
  return std::get<Value>(arguments.at(index));
}

const Endpoint& Request::endpoint(std::size_t index) const {
  return std::get<Endpoint>(arguments.at(index));
}

}  // namespace kelvane::ipc
