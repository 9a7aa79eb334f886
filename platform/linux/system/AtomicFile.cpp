// SPDX-License-Identifier: Apache-2.0
// Small files in /run that others read at any time.
#include "platform/linux/system/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>

#include "platform/linux/runtime/BlockedScope.h"
#include "platform/linux/runtime/FileAccess.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/runtime/Mutex.h"

namespace kelvane {

Result<> replaceFile(const std::string& directory, const std::string& name, std::string_view contents) {
  const runtime::BlockedScope blocked;
  if (auto made = makeDirectories(directory); !made) {
    return made;
  }
  // One temporary name a file, so that crashes leave no more than one behind; hence one writer at a time.
  static runtime::Mutex mutex;
  const runtime::Lock lock(mutex);
  const std::string temporary = directory + "/." + name + ".new";
  const std::string target = directory + "/" + name;
  const FileDescriptor file(
      open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
  if (!file) {
    return systemFailure("opening", temporary);
  }
  Result<> replaced = fchmod(file.get(), 0644) == 0 ? Result<>() : systemFailure("making", temporary);
  if (replaced) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(contents.data());
    replaced = writeAll(file.get(), temporary, {bytes, contents.size()}, 0);
  }
  if (replaced && rename(temporary.c_str(), target.c_str()) != 0) {
    replaced = systemFailure("renaming", temporary);
  }
  if (!replaced) {
    unlink(temporary.c_str());
  }
  return replaced;
}

}  // namespace kelvane
