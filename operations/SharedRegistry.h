// SPDX-License-Identifier: Apache-2.0
// What the operations see of the registry.
#pragma once

#include <memory>
#include <string>
#include <variant>

#include "platform/Queues.h"
#include "platform/Value.h"
#include "support/KelvaneRecentInfo.h"

namespace kelvane {

/// The registry's work queues, made in this order. Each serialises what its name says for the whole daemon.
struct WorkQueues {
  SerialQueue purge_queue{"com.tessaly.kelvane_purge"};
  SerialQueue purgeable_queue{"com.tessaly.kelvane_purgeable"};
  /// Made and kept, but no work is put on it: periodic work runs on its caller's queue.
  SerialQueue periodic_queue{"com.tessaly.kelvane_periodic"};
  SerialQueue notify_queue{"com.tessaly.kelvane_notify"};
  SerialQueue daemons_queue{"com.tessaly.kelvane_daemons"};
  /// Guards the service table. It carries the cancel label on purpose.
  SerialQueue collection_queue{"com.tessaly.kelvane_cancel"};
  SerialQueue defaults_queue{"com.tessaly.kelvane_defaults"};
};

/// A value of the state store as the daemon itself deals with it: the record of recent answers is an object, and
/// whatever is data there is the archive of one.
using StateObject = std::variant<Value, std::shared_ptr<KelvaneRecentInfo>>;

/// The part of the one registry that operations use; the registry derives from it.
class SharedRegistry {
 public:
  virtual ~SharedRegistry() = default;
  SharedRegistry(const SharedRegistry&) = delete;
  SharedRegistry& operator=(const SharedRegistry&) = delete;

  /// The process's one registry. Start-up publishes it before anything can ask.
  static SharedRegistry& sharedKelvane();

  /// A value of the state store. Data is decoded as an archive, whoever stored it: a null object when it is none.
  /// Stops the process off the defaults queue.
  virtual StateObject clientGetStateSync(const Value& key) = 0;
  /// Stores a value, a record as its archive; an absent value removes the entry. What does not fit is logged and
  /// not stored. Stops the process off the defaults queue.
  virtual void clientSetStateSync(const StateObject& value, const std::string& key) = 0;

  /// Sees to it that the state as it is now outlives this process, though no loss of power. Waits for it, but not long
  /// when the disk does not answer. Any thread.
  virtual void handOverState() = 0;

  const SerialQueue& purge_queue() const KELVANE_RETURN_CAPABILITY(queues_.purge_queue) { return queues_.purge_queue; }
  const SerialQueue& purgeable_queue() const KELVANE_RETURN_CAPABILITY(queues_.purgeable_queue) {
    return queues_.purgeable_queue;
  }
  const SerialQueue& periodic_queue() const KELVANE_RETURN_CAPABILITY(queues_.periodic_queue) {
    return queues_.periodic_queue;
  }
  const SerialQueue& notify_queue() const KELVANE_RETURN_CAPABILITY(queues_.notify_queue) {
    return queues_.notify_queue;
  }
  const SerialQueue& daemons_queue() const KELVANE_RETURN_CAPABILITY(queues_.daemons_queue) {
    return queues_.daemons_queue;
  }
  const SerialQueue& collection_queue() const KELVANE_RETURN_CAPABILITY(queues_.collection_queue) {
    return queues_.collection_queue;
  }
  const SerialQueue& defaults_queue() const KELVANE_RETURN_CAPABILITY(queues_.defaults_queue) {
    return queues_.defaults_queue;
  }

 protected:
  SharedRegistry() = default;
  /// Publishes the registry; null withdraws it.
  static void setSharedKelvane(SharedRegistry* registry);

  const WorkQueues queues_{};
};

}  // namespace kelvane
