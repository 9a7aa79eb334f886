// SPDX-License-Identifier: Apache-2.0
// A directory's entry under a name that nobody else knows.
#pragma once

#include <optional>
#include <string>

#include "services/directory-cache/Descriptor.h"
#include "services/directory-cache/FileStatus.h"

namespace kelvane::directoryCache {

/// An entry is deleted by its name, whatever has that name by then. So that nothing else can take the place of what was
/// looked at, the entry first gets a random name in its directory, is compared under that, and then goes or is put
/// back. Where even a new name takes space that there is not, it keeps its own, and only little time lies between look
/// and deletion. Used within an ending::Unbroken, on one thread; puts back at its end what has not gone.
class SetAside {
 public:
  /// Begins all names of this kind.
  static constexpr char prefix[] = ".kelvane-aside-";

  /// None with the reason in errno.
  [[nodiscard]] static std::optional<SetAside> take(Descriptor parent, const std::string& name);
  SetAside(SetAside&&) = default;
  SetAside& operator=(SetAside&&) = delete;
  ~SetAside();

  /// What was set aside, which need not be what had the name when somebody looked; none when it can't be told.
  [[nodiscard]] std::optional<FileStatus> status() const;
  /// Deletes the file, or the directory if it is empty. False with the reason in errno.
  [[nodiscard]] bool remove(bool isDirectory);

 private:
  SetAside(Descriptor parent, std::string name, std::string secretName);
  bool isMoved() const { return secretName_ != name_; }

  Descriptor parent_;
  std::string name_;
  std::string secretName_;
  bool isGone_ = false;
};

}  // namespace kelvane::directoryCache
