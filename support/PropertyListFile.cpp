// SPDX-License-Identifier: Apache-2.0
// Reading a property list from a file.
#include "support/PropertyListFile.h"

#include "platform/Files.h"
#include "platform/Limits.h"
#include "platform/PropertyList.h"
#include "support/KelvaneLog.h"

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

Value readConfiguration(const std::string& path, const char* reader, const char* instead) {
  const auto read = readPropertyListFile(path);
  if (const auto* error = std::get_if<FileError>(&read)) {
    if (!error->isMissing) {
      KELVANE_ERROR("%s unable to read %@: %@; %s", reader, path, error->text, instead);
    }
    return {};
  }
  const Value& configuration = std::get<Value>(read);
  if (!configuration.isDictionary()) {
    KELVANE_ERROR("%s %@ is no dictionary; %s", reader, path, instead);
    return {};
  }
  return configuration;
}

std::vector<std::string> listDirectory(const std::string& directory, const char* reader) {
  files::Listing listing = files::entriesBeneath(directory);
  for (const std::string& failure : listing.failures) {
    KELVANE_ERROR("%s unable to list %@; it counts as empty", reader, failure);
  }
  return std::move(listing.entries);
}

}  // namespace kelvane
