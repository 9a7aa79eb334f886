// SPDX-License-Identifier: Apache-2.0
// A process of another user.
#pragma once

#include <sys/types.h>

#include <functional>

#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::test {

/// Nobody in particular, but not root.
inline constexpr uid_t otherUser = 65534;

/// Does something as another user and keeps what that made until this object goes. Needs root, and a process without
/// threads.
class OtherUser {
 public:
  explicit OtherUser(const std::function<bool()>& work);
  ~OtherUser();
  OtherUser(const OtherUser&) = delete;
  OtherUser& operator=(const OtherUser&) = delete;

  /// Waits for what the work returns.
  [[nodiscard]] bool succeeds();

 private:
  pid_t pid_ = 0;
  FileDescriptor result_;
  /// The process ends when this closes.
  FileDescriptor life_;
};

}  // namespace kelvane::test
