// SPDX-License-Identifier: Apache-2.0
// The registry: the daemon's one central object.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "client/ClientInterface.h"
#include "platform/Preferences.h"
#include "support/KelvaneListener.h"

namespace kelvane {

/// Owns the work queues, the table of services, the preferences suite and the listener on which clients
/// reach it, and turns requests into operations. Start-up makes the only one; it lives until the process
/// ends; a test that destroys one makes sure first that nothing of it is under way. What of it is shared is
/// confined to its queues.
class Kelvane final : public ClientInterface {
 public:
  /// Makes the registry: scans the service descriptions, publishes itself as the shared one, then opens the
  /// listener, so that the first request already finds everything. On the main thread, once.
  static std::unique_ptr<Kelvane> init();
  ~Kelvane() override;

  static Kelvane& sharedKelvane() { return static_cast<Kelvane&>(SharedRegistry::sharedKelvane()); }

  /// Reads the entitlement rules again, and ends the connections of clients and services that they leave out. Blocks
  /// while it reads.
  void readRulesAgain();

  /// Calls the block with every property-list dictionary found in a file beneath the directory, in name
  /// order. Other files are logged or skipped.
  static void scanPlistsAtPath(const std::string& directory, const std::function<void(const Value&)>& execBlock);

  /// Snapshots of the service table, one to change and one to read; the table is not affected. They wait their
  /// turn on the collection queue, so they must not be called from an item of it.
  ServiceTable mutableServices() const;
  std::shared_ptr<const ServiceTable> copyServices() const;
  /// The live table: what is known at this moment, without waiting behind check-ins.
  std::shared_ptr<const ServiceTable> services() const KELVANE_NO_THREAD_SAFETY_ANALYSIS;

  /// Runs a purgeable-space query on its queue and waits for it and for all queued before it. None when the info
  /// was refused, and when the requester had hung up before it began and the settings drop such requests.
  Value totalAvailable(const Value& info, const Requester& requester = {}) override;
  /// Runs a purge on the purge queue and waits for it and for all queued before it. The callback, if any,
  /// gets everything that the operation delivers, single services' answers too and even after this has
  /// returned. Gives what was delivered last before it returned; none when the info was refused, and when the requester
  /// had hung up before it began and the settings drop such requests.
  Value purge(const Value& info, const ResultCallback& callback, const Requester& requester = {}) override;
  /// Runs the periodic maintenance of one volume on the calling thread; the result is only logged.
  void performPeriodicsWithInfo(const Value& info);
  /// How many members an array or dictionary has, counted on the collection queue.
  std::int64_t requestsInFlight(const Value& collection) const;

  /// Purges every volume that is low on space, one after the other, by a fixed amount.
  void handleVFSStreamVEXEvent(const Value& event);

  /// Tells the services that asked for this notification about a value, which may be absent. Waits its turn on the
  /// collection queue, but for no service.
  void notifyRecipients(const std::string& name, const Value& value) override;
  /// Waits, without limit, until the service has answered a ping; true.
  bool pingService(const KelvaneServiceProxy& proxy) override;

  /// The root directory.
  const std::string& rootPath() const { return rootPath_; }
  /// The preferences suite; null when it could not be opened.
  PreferencesSuite* userDefaults() const { return userDefaults_.get(); }
  /// State values that hold until others are set.
  const Value& default_values() const { return default_values_; }

 private:
  Kelvane();

  const std::string rootPath_ = "/";
  std::unique_ptr<KelvaneListener> listener_;
};

}  // namespace kelvane
