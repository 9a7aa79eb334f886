// SPDX-License-Identifier: Apache-2.0
// Which unit of the service manager a control group belongs to.
#include "platform/linux/ipc/ControlGroup.h"

namespace kelvane::ipc {

std::string_view unitOfControlGroup(std::string_view path) {
  while (!path.empty()) {
    path.remove_prefix(1);
    std::string_view component = path.substr(0, path.find('/'));
    path.remove_prefix(component.size());
    if (component.ends_with(".service") || component.ends_with(".scope")) {
      // The service manager puts '_' before names that would mean something to the kernel.
      component.remove_prefix(component.starts_with('_') ? 1 : 0);
      return component;
    }
    if (!component.ends_with(".slice")) {
      return {};
    }
  }
  return {};
}

}  // namespace kelvane::ipc
