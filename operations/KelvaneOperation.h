// SPDX-License-Identifier: Apache-2.0
// The base of every unit of work that is run against the services.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "platform/Queues.h"
#include "platform/Value.h"
#include "support/AtomicProperty.h"
#include "support/KLService.h"

namespace kelvane {

/// One request at work: checked by its initialiser, started once, dropped by its owner when its completion
/// has run. Whatever it submits holds it, so it outlives its late replies.
///
/// The identifiers of the services that have a request outstanding, "in flight", live on the operation's
/// own collection queue; what reads or changes them waits its turn there and must not be called from its items.
class KelvaneOperation : public std::enable_shared_from_this<KelvaneOperation> {
 public:
  /// Receives a result dictionary.
  using Completion = std::function<void(const Value&)>;

  static constexpr std::int32_t defaultUrgencyLimit = 3;
  static constexpr std::int32_t maximumUrgency = 4;

  virtual ~KelvaneOperation() = default;
  KelvaneOperation(const KelvaneOperation&) = delete;
  KelvaneOperation& operator=(const KelvaneOperation&) = delete;

  /// Runs the operation on the calling thread and calls the completion, which must not be empty, before it returns.
  virtual void startOperation(const Completion& completion) = 0;

  /// Asks every service in flight to stop purging; returns at once.
  virtual void cancelOperation();

  /// Marks a service as in flight or no longer so, and tells whether that changed anything.
  bool updateInFlight(const std::string& identifier, bool add) KELVANE_EXCLUDES(collection_queue_);
  /// How many services are in flight, in order with the updates.
  std::uint64_t inFlightCount() const KELVANE_EXCLUDES(collection_queue_);
  /// Who is in flight, in order with the updates.
  std::set<std::string> inFlight() const KELVANE_EXCLUDES(collection_queue_);

  const Value& info() const { return info_; }
  const ServiceTable& services() const { return services_; }
  /// A copy of the info after a successful initialisation, or what was wrong after a failed one.
  Value result() const { return result_.load(); }
  const std::string& volume() const { return volume_; }
  /// From 1 to maximumUrgency.
  std::int32_t urgencyLimit() const { return urgencyLimit_; }

 protected:
  KelvaneOperation() = default;

  /// Checks the info and takes it over; on failure false, with the error in result().
  bool initWithInfo(const Value& info, ServiceTable services);
  void setServices(ServiceTable services) { services_ = std::move(services); }
  void setResult(Value result) { result_.store(std::move(result)); }

  /// Asks one service to stop; the error block runs when its connection fails first.
  void sendCancel(const std::string& identifier, Block error) const;
  static Value arrayOf(const std::set<std::string>& identifiers);
  static ServiceTable selected(const ServiceTable& services, bool (*isWanted)(const KLService&));

  const SerialQueue& collection_queue() const KELVANE_RETURN_CAPABILITY(collection_queue_) { return collection_queue_; }
  /// Carries outgoing requests.
  const SerialQueue& message_queue() const { return message_queue_; }
  /// The size of the in-flight set at this moment, which may be in the middle of an update elsewhere.
  std::size_t unguardedInFlightCount() const { return inFlightSize_; }
  /// The in-flight set, for items of the collection queue.
  const std::set<std::string>& inFlightOnQueue() const KELVANE_REQUIRES(collection_queue_) { return inFlight_; }

 private:
  bool refuse(const char* error);

  Value info_;
  ServiceTable services_;
  AtomicProperty<Value> result_;
  std::string volume_;
  std::atomic<std::int32_t> urgencyLimit_ = defaultUrgencyLimit;
  const SerialQueue collection_queue_{"com.tessaly.kelvane_operation_collection"};
  const SerialQueue message_queue_{"com.tessaly.kelvane_operation_message"};
  std::set<std::string> inFlight_ KELVANE_GUARDED_BY(collection_queue_);
  std::atomic<std::size_t> inFlightSize_ = 0;
};

}  // namespace kelvane
