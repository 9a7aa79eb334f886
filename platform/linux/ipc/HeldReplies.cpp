// SPDX-License-Identifier: Apache-2.0
// What the replies of services take while they are being dealt with.
#include "platform/linux/ipc/HeldReplies.h"

namespace kelvane::ipc {

std::size_t HeldReplies::holdable(uid_t user) const {
  const std::lock_guard lock(mutex_);
  const auto found = held_.find(user);
  return bytesPerUser_ - (found == held_.end() ? 0 : found->second);
}

HeldReplies::Room HeldReplies::hold(uid_t user, std::size_t bytes) {
  const std::lock_guard lock(mutex_);
  const auto found = held_.find(user);
  const std::size_t held = found == held_.end() ? 0 : found->second;
  if (bytes > bytesPerUser_ - held) {
    return nullptr;
  }
  held_[user] = held + bytes;
  return {this, [user, bytes](HeldReplies* self) { self->release(user, bytes); }};
}

void HeldReplies::release(uid_t user, std::size_t bytes) {
  const std::lock_guard lock(mutex_);
  const auto found = held_.find(user);
  // Not there any more when all that is left was nothing.
  if (found != held_.end() && (found->second -= bytes) == 0) {
    held_.erase(found);
  }
}

}  // namespace kelvane::ipc
