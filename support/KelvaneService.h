// SPDX-License-Identifier: Apache-2.0
// What a program links to let the daemon delete its caches.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Queues.h"
#include "platform/Value.h"
#include "support/Cancellation.h"

namespace kelvane {

class ServiceCheckin;
class ServiceRequests;

/// Who a service is and how the daemon learns of it.
struct KelvaneServiceConfiguration {
  enum class Manner {
    Checkin,  ///< it introduces itself to the daemon, and does so again whenever the daemon was restarted
    Named,    ///< a service description names it; it listens under its identifier
  };
  std::string identifier;
  Manner manner = Manner::Checkin;

  // What a check-in tells. A description tells it for a named service.
  bool purges = true;
  /// Declares periodic work. The daemon sends its periodic requests to services that purge and do not declare it.
  bool periodic = false;
  /// Names of the notifications that the service wants.
  std::vector<std::string> notifications = {};

  /// Whose processes may connect to a named service: the daemon's user, by name or decimal number.
  std::string daemonUser = "root";
};

/// A request about space, as the service's functions are given it.
struct SpaceRequest {
  /// From 1, mildest, to 4.
  std::int32_t urgency;
  /// The mount point of the volume that is short of space; empty when the request names none.
  std::string volume;
  /// Bytes to free; 0 when the request names none.
  std::uint64_t amount;
  /// Everything the daemon sent.
  Value info;
};

/// A service that the daemon asks for space. Derive from it, override what the service does, and run() it.
///
/// purge() and periodic() run one at a time, on a queue of their own; so do purgeable(), notify() and
/// callback() on another. The two queues run at the same time: a query does not wait for a purge that takes
/// minutes. Pings are answered and purges cancelled beside both. The functions must not throw. They run only
/// while run() does, so a derived class may be destroyed once run() has returned.
class KelvaneService {
 public:
  explicit KelvaneService(KelvaneServiceConfiguration configuration);
  virtual ~KelvaneService();
  KelvaneService(const KelvaneService&) = delete;
  KelvaneService& operator=(const KelvaneService&) = delete;

  /// Serves until stop() is called, on threads of its own, while the calling thread waits. Work that is under
  /// way then is cancelled and waited for. Returns why it cannot serve when its name cannot be listened on;
  /// that the daemon is not there is no error. Call it once.
  [[nodiscard]] std::optional<std::string> run();
  /// Ends run(), also one that is yet to come. Any thread may call it; signal handlers may not.
  void stop();

  const KelvaneServiceConfiguration& configuration() const { return configuration_; }

 protected:
  /// How many bytes a purge at this urgency could free on the volume; none to be left out of queries for a
  /// while. The daemon waits for a fraction of a second and uses later answers the next time. Unless
  /// overridden, none.
  virtual std::optional<std::uint64_t> purgeable(const SpaceRequest& request, const Cancellation& cancellation);
  /// Frees at least the amount if it can, and returns how many bytes the volume gained. Whoever returns less
  /// than the amount is taken to have no more. Unless overridden, frees nothing.
  virtual std::uint64_t purge(const SpaceRequest& request, const Cancellation& cancellation);
  /// Does maintenance that comes up about once a day and returns the bytes freed. Unless overridden, does
  /// nothing. It is cancelled by stop() only.
  virtual std::uint64_t periodic(const SpaceRequest& request, const Cancellation& cancellation);
  /// Called when all purges of the moment have been cancelled, for work that cannot ask its cancellation: on
  /// a thread of the IPC facility, beside the purge; must not block. Unless overridden, does nothing.
  virtual void cancelPurge();
  /// Takes a notification; its value is absent when what it tells of was removed. Unless overridden, does
  /// nothing.
  virtual void notify(const std::string& name, const Value& value);
  /// Answers a private request with any value, or absent. Unless overridden, absent.
  virtual Value callback(const Value& info);

 private:
  friend class ServiceRequests;

  const KelvaneServiceConfiguration configuration_;
  const std::shared_ptr<ServiceRequests> requests_;
  const Semaphore stopped_;
  /// Null for a named service.
  const std::unique_ptr<ServiceCheckin> checkin_;
};

}  // namespace kelvane
