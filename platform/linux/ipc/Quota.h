// SPDX-License-Identifier: Apache-2.0
// What each user makes this process hold, against the limits.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <unordered_map>

#include "platform/Limits.h"

namespace kelvane::ipc {

/// Counts connections and bytes, over all users and of each user. Lives on the event loop's thread.
/// Everything taken is given back with the function beside it.
class Quota {
 public:
  struct Limits {
    int connections = limits::connections;
    int connectionsKeptForRoot = limits::connectionsKeptForRoot;
    int connectionsPerUser = limits::connectionsPerUser;
    int partialMessagesPerUser = limits::partialMessagesPerUser;
    std::size_t heldBytesPerUser = limits::heldRequestBytesPerUser;
    std::size_t unsentBytesPerUser = limits::unsentBytesPerUser;
  };

  Quota() : Quota(Limits()) {}
  explicit Quota(const Limits& limits) : limits_(limits) {}

  /// False when a limit is reached, and nothing is counted; so for the others.
  [[nodiscard]] bool addConnection(uid_t user);
  void removeConnection(uid_t user);

  /// Bytes of requests that were decoded and are not done with.
  [[nodiscard]] bool hold(uid_t user, std::size_t bytes);
  void release(uid_t user, std::size_t bytes);
  std::size_t holdable(uid_t user) const;

  /// Bytes of replies and calls that wait for the peer to read.
  [[nodiscard]] bool addUnsent(uid_t user, std::size_t bytes);
  void removeUnsent(uid_t user, std::size_t bytes);

  /// Connections in the midst of a message.
  [[nodiscard]] bool addPartial(uid_t user);
  void removePartial(uid_t user);

 private:
  struct Use {
    int connections = 0;
    int partialMessages = 0;
    std::size_t heldBytes = 0;
    std::size_t unsentBytes = 0;
    friend bool operator==(const Use&, const Use&) = default;
  };
  void forgetIfIdle(uid_t user);

  const Limits limits_;
  int connections_ = 0;
  std::unordered_map<uid_t, Use> users_;
};

}  // namespace kelvane::ipc
