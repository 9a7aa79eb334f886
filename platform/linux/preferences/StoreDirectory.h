// SPDX-License-Identifier: Apache-2.0
// Directories of stores, and their entries.
#pragma once

#include <string>

#include "platform/Result.h"
#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane {

/// None, with errno set, for what is no directory. Follows no link.
FileDescriptor openDirectory(int parent, const char* name);
/// The directory of all stores, made when it is missing, and locked.
Result<FileDescriptor> openStores(const std::string& directory);
/// Renames what a directory, which has this path, has under a name to the first free NAME.damaged-N, or the last, where
/// NAME is a store's. Gives the new name.
Result<std::string> keepAside(int parent, const std::string& directory, const std::string& entry,
                              const std::string& name);
/// Whether a path, beneath a directory unless it is absolute, leads to an open file, as far as the system says.
bool leadsTo(int directory, const char* path, const FileDescriptor& file);

}  // namespace kelvane
