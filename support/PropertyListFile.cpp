// SPDX-License-Identifier: Apache-2.0
// Reading a property list from a file.
#include "support/PropertyListFile.h"

#include "platform/Files.h"
#include "platform/Limits.h"
#include "platform/PropertyList.h"

namespace kelvane {

std::variant<Value, FileError> readPropertyListFile(const std::string& path) {
  const auto contents = files::read(path, limits::propertyListBytes);
  if (const auto* error = std::get_if<files::Error>(&contents)) {
    return FileError{error->text, error->isMissing};
  }
  const auto parsed = propertyList::parse(std::get<Data>(contents));
  if (const auto* error = std::get_if<propertyList::Error>(&parsed)) {
    return FileError{.text = error->text};
  }
  return std::get<Value>(parsed);
}

}  // namespace kelvane
