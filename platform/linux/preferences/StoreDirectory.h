// SPDX-License-Identifier: Apache-2.0
// Directories of stores, and their entries.
#pragma once

#include <array>
#include <string>

#include "platform/Result.h"
#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane {

/// The files of a store.
inline constexpr std::array<const char*, 2> slotNames = {"slot-a", "slot-b"};

/// None, with errno set, for what is no directory. Follows no link.
FileDescriptor openDirectory(int parent, const char* name);
/// The directory of all stores, made when it is missing, this user's alone, and locked. It may be a link to one.
Result<FileDescriptor> openStores(const std::string& directory);
/// Gives what a directory, which has this path, has under a name another one. Where the manner, as of renameat2(),
/// is to exchange them, what had that other name has the first one then.
Result<> renameEntry(int parent, const std::string& directory, const std::string& from, const std::string& to,
                     unsigned manner = 0);
/// Renames an entry of the directory to the first free NAME.damaged-N, or the last, where NAME is a store's. Gives the
/// new name.
Result<std::string> keepAside(int parent, const std::string& directory, const std::string& entry,
                              const std::string& name);
/// Removes a store's slots and the directory that they are in, if there is one under this name. Of anything else, such
/// as what holds more or is mounted there, it removes nothing, and fails.
Result<> removeStore(int parent, const std::string& directory, const std::string& entry);

/// Whether a link at the end of a path is what it leads to.
enum class FinalLink { IsFollowed, IsNot };
/// Whether a path, beneath a directory unless it is absolute, leads to an open file, as far as the system says.
bool leadsTo(int directory, const char* path, FinalLink link, const FileDescriptor& file);

}  // namespace kelvane
