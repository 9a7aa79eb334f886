// SPDX-License-Identifier: Apache-2.0
// What calls that wait are told apart by.
#include "platform/common/CallNames.h"

namespace kelvane::ipc {

std::vector<std::string> callNames(const Arguments& arguments) {
  std::vector<std::string> names;
  for (const auto& argument : arguments) {
    const Value* value = std::get_if<Value>(&argument);
    if (const auto dictionary = value == nullptr ? nullptr : value->dictionary()) {
      for (const auto& [key, entry] : *dictionary) {
        names.push_back(key);
      }
    }
  }
  return names;
}

}  // namespace kelvane::ipc
