// SPDX-License-Identifier: Apache-2.0
// Reading a property list from a file.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "platform/Value.h"

namespace kelvane {

/// Why a file gave no property list, in words for a log line.
struct FileError {
  std::string text;
  /// There is no such file.
  bool isMissing = false;
};

/// The property list in a file, of any format and up to limits::propertyListBytes.
[[nodiscard]] std::variant<Value, FileError> readPropertyListFile(const std::string& path);

// What need not be there. Whatever is there and yet can't be used is logged, in the name of who reads it, with what is
// done instead.

/// The dictionary in a configuration file; absent without one.
[[nodiscard]] Value readConfiguration(const std::string& path, const char* reader, const char* instead);
/// Every entry beneath a directory, as files::entriesBeneath() has them. What cannot be listed counts as empty.
[[nodiscard]] std::vector<std::string> listDirectory(const std::string& directory, const char* reader);

}  // namespace kelvane
