// SPDX-License-Identifier: Apache-2.0
// Contents of files that a walk has led to.
#pragma once

#include <cstddef>
#include <string>
#include <variant>

#include "platform/Files.h"
#include "platform/Value.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/volumes/FileSystemProbe.h"

namespace kelvane {

/// What the system says of a path or file, for people.
[[nodiscard]] files::Error fileError(int number);

/// As walkTo(), with what is wrong for people. Nothing counts as missing where a link on the way leads nowhere: whoever
/// made the link meant something to be there.
[[nodiscard]] std::variant<FileDescriptor, files::Error> placeAt(FileSystemProbe::Visit& visit,
                                                                 const std::string& path);
/// As placeAt(), of configuration: an error when somebody else than root and this process's user may change what is
/// there, or what leads there.
[[nodiscard]] std::variant<FileDescriptor, files::Error> configurationAt(FileSystemProbe::Visit& visit,
                                                                         const std::string& path);

/// As files::read, of a file that is open as no more than a place (O_PATH). It waits for the file system: for the
/// probe's workers, once they have entered that.
[[nodiscard]] std::variant<Data, files::Error> readPlace(const FileDescriptor& place, std::size_t maximumBytes);

/// The place, opened for reading, with more flags of open(). Without another walk, as /proc leads to it.
[[nodiscard]] FileDescriptor openForReading(const FileDescriptor& place, int flags);

}  // namespace kelvane
