// SPDX-License-Identifier: Apache-2.0
// What the replies of services take while they are being dealt with.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "platform/Limits.h"

namespace kelvane::ipc {

/// Counts the bytes of decoded replies of each user's services until those who waited for them have returned. A
/// message of arrays takes many times its length when it is decoded, and a user may have many services. Owned by the
/// hub, never destroyed. Any thread may call any function.
class HeldReplies {
 public:
  /// Room that is given back with its last reference.
  using Room = std::shared_ptr<void>;

  explicit HeldReplies(std::size_t bytesPerUser = limits::heldReplyBytesPerUser) : bytesPerUser_(bytesPerUser) {}

  /// How many bytes there is room for.
  std::size_t holdable(uid_t user) const;
  /// Null when there is no room for so much.
  [[nodiscard]] Room hold(uid_t user, std::size_t bytes);

 private:
  void release(uid_t user, std::size_t bytes);

  const std::size_t bytesPerUser_;
  mutable std::mutex mutex_;
  std::unordered_map<uid_t, std::size_t> held_;  // guarded by mutex_
};

}  // namespace kelvane::ipc
