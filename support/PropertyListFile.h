// SPDX-License-Identifier: Apache-2.0
// Reading a property list from a file.
#pragma once

#include <string>
#include <variant>

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

}  // namespace kelvane
