// SPDX-License-Identifier: Apache-2.0
// What each user makes this process hold, against the limits.
#include "platform/linux/ipc/Quota.h"

namespace kelvane::ipc {

bool Quota::addConnection(uid_t user) {
  const auto found = users_.find(user);
  const int kept = user == 0 ? 0 : limits_.connectionsKeptForRoot;
  if (connections_ >= limits_.connections - kept ||
      (found != users_.end() && found->second.connections >= limits_.connectionsPerUser)) {
    return false;
  }
  ++connections_;
  ++users_[user].connections;
  return true;
}

void Quota::removeConnection(uid_t user) {
  --connections_;
  --users_[user].connections;
  forgetIfIdle(user);
}

std::size_t Quota::holdable(uid_t user) const {
  const auto found = users_.find(user);
  return limits_.heldBytesPerUser - (found == users_.end() ? 0 : found->second.heldBytes);
}

bool Quota::hold(uid_t user, std::size_t bytes) {
  if (bytes > holdable(user)) {
    return false;
  }
  users_[user].heldBytes += bytes;
  return true;
}

void Quota::release(uid_t user, std::size_t bytes) {
  users_[user].heldBytes -= bytes;
  forgetIfIdle(user);
}

bool Quota::addUnsent(uid_t user, std::size_t bytes) {
  Use& use = users_[user];
  if (bytes > limits_.unsentBytesPerUser - use.unsentBytes) {
    forgetIfIdle(user);
    return false;
  }
  use.unsentBytes += bytes;
  return true;
}

void Quota::removeUnsent(uid_t user, std::size_t bytes) {
  users_[user].unsentBytes -= bytes;
  forgetIfIdle(user);
}

bool Quota::addPartial(uid_t user) {
  Use& use = users_[user];
  if (use.partialMessages >= limits_.partialMessagesPerUser) {
    forgetIfIdle(user);
    return false;
  }
  ++use.partialMessages;
  return true;
}

void Quota::removePartial(uid_t user) {
  --users_[user].partialMessages;
  forgetIfIdle(user);
}

void Quota::forgetIfIdle(uid_t user) {
  const auto found = users_.find(user);
  if (found != users_.end() && found->second == Use()) {
    users_.erase(found);
  }
}

}  // namespace kelvane::ipc
