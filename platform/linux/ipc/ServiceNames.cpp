// SPDX-License-Identifier: Apache-2.0
// Where named services listen.
#include "platform/linux/ipc/ServiceNames.h"

#include "platform/Ipc.h"
#include "platform/Limits.h"

namespace kelvane::ipc {

bool isServiceName(std::string_view name) {
  return !name.empty() && name.size() <= limits::serviceNameBytes && !name.starts_with('.') &&
         name.find('/') == name.npos && name.find('\0') == name.npos;
}

std::string servicePath(const std::string& name) {
  return std::string(serviceDirectory) + "/" + name;
}

}  // namespace kelvane::ipc
