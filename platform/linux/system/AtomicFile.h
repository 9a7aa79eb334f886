// SPDX-License-Identifier: Apache-2.0
// Small files in /run that others read at any time.
#pragma once

#include <string>
#include <string_view>

#include "platform/Result.h"

namespace kelvane {

/// Gives the file this contents so that a reader sees the old or the new, whole, and a watcher of the
/// directory sees one move onto the name. Makes the directory, with those above it, when it
/// is missing. World-readable. Not made durable. When it fails the file is as it was.
Result<> replaceFile(const std::string& directory, const std::string& name, std::string_view contents);

}  // namespace kelvane
