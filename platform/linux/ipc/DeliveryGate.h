// SPDX-License-Identifier: Apache-2.0
// How many requests of each kind are being delivered at once.
#pragma once

#include <sys/types.h>

#include <deque>
#include <map>

#include "platform/IpcInterface.h"
#include "platform/Limits.h"

namespace kelvane::ipc {

/// Lets requests through to their delivery, up to a limit for each kind and one for each kind and user.
/// Those beyond wait; users that wait for the same kind take turns. Lives on the event loop's thread.
class DeliveryGate {
 public:
  /// A connection whose next request waits.
  class Waiter {
   public:
    /// The request was let through after all. It may not enter or leave the gate from here.
    virtual void admitted() = 0;

   protected:
    ~Waiter() = default;
  };

  explicit DeliveryGate(int perKind = limits::deliveredPerKind, int perKindAndUser = limits::deliveredPerKindAndUser)
      : perKind_(perKind), perKindAndUser_(perKindAndUser) {}

  /// Whether a request of this kind may be delivered now. If not, the waiter is told when it may.
  [[nodiscard]] bool enter(const Operation& kind, uid_t user, Waiter& waiter);
  /// A request that was let through is done with.
  void leave(const Operation& kind, uid_t user);
  /// The waiter waits no more.
  void withdraw(const Operation& kind, uid_t user, const Waiter& waiter);

 private:
  struct User {
    int delivered = 0;
    std::deque<Waiter*> waiting;
  };
  struct Kind {
    int delivered = 0;
    std::map<uid_t, User> users;
    uid_t lastServed = 0;
  };
  void admitWaiting(Kind& kind);
  void forgetIfIdle(const Operation& operation, uid_t user);

  const int perKind_;
  const int perKindAndUser_;
  std::map<const Operation*, Kind> kinds_;
};

}  // namespace kelvane::ipc
