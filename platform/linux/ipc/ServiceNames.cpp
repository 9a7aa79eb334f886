// SPDX-License-Identifier: Apache-2.0
// Where named services listen.
#include "platform/linux/ipc/ServiceNames.h"

namespace kelvane::ipc {

std::string servicePath(const std::string& name) {
  return std::string(serviceDirectory) + "/" + name;
}

}  // namespace kelvane::ipc
