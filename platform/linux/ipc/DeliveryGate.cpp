// SPDX-License-Identifier: Apache-2.0
// How many requests of each kind are being delivered at once.
#include "platform/linux/ipc/DeliveryGate.h"

namespace kelvane::ipc {

bool DeliveryGate::enter(const Operation& operation, uid_t uid, Waiter& waiter) {
  Kind& kind = kinds_[&operation];
  User& user = kind.users[uid];
  if (kind.delivered < perKind_ && user.delivered < perKindAndUser_) {
    ++kind.delivered;
    ++user.delivered;
    kind.lastServed = uid;
    return true;
  }
  user.waiting.push_back(&waiter);
  return false;
}

void DeliveryGate::leave(const Operation& operation, uid_t uid) {
  Kind& kind = kinds_.at(&operation);
  --kind.delivered;
  --kind.users.at(uid).delivered;
  admitWaiting(kind);
  forgetIfIdle(operation, uid);
}

void DeliveryGate::withdraw(const Operation& operation, uid_t uid, const Waiter& waiter) {
  std::erase(kinds_.at(&operation).users.at(uid).waiting, &waiter);
  forgetIfIdle(operation, uid);
}

/// One place has become free: gives it to the next user in turn who waits and may have it.
void DeliveryGate::admitWaiting(Kind& kind) {
  auto next = kind.users.upper_bound(kind.lastServed);
  for (std::size_t left = kind.users.size(); left > 0; --left, ++next) {
    if (next == kind.users.end()) {
      next = kind.users.begin();
    }
    User& user = next->second;
    if (!user.waiting.empty() && user.delivered < perKindAndUser_) {
      Waiter* const waiter = user.waiting.front();
      user.waiting.pop_front();
      ++kind.delivered;
      ++user.delivered;
      kind.lastServed = next->first;
      waiter->admitted();
      return;
    }
  }
}

void DeliveryGate::forgetIfIdle(const Operation& operation, uid_t uid) {
  const auto kind = kinds_.find(&operation);
  const auto user = kind->second.users.find(uid);
  if (user->second.delivered == 0 && user->second.waiting.empty()) {
    kind->second.users.erase(user);
  }
  if (kind->second.users.empty()) {
    kinds_.erase(kind);
  }
}

}  // namespace kelvane::ipc
