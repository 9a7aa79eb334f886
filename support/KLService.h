// SPDX-License-Identifier: Apache-2.0
// The record of one known service.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/Ipc.h"
#include "platform/Queues.h"
#include "platform/Value.h"
#include "support/AtomicProperty.h"

namespace kelvane {

/// One service that the daemon knows, from a description or because it checked in. The registry's service
/// table owns it; snapshots and running operations hold it as long as they need it. The flags and the
/// notifications change while others read them, each atomically; the endpoint, the connection and whose they are is set
/// before the record is shared.
class KLService : public std::enable_shared_from_this<KLService> {
 public:
  explicit KLService(std::string identifier) : ID_(std::move(identifier)) {}
  KLService(const KLService&) = delete;
  KLService& operator=(const KLService&) = delete;

  /// The service's identifier, its key in the service table.
  const std::string& ID() const { return ID_; }

  bool doesPurge() const { return doesPurge_; }
  void setDoesPurge(bool does) { doesPurge_ = does; }
  bool doesPeriodic() const { return doesPeriodic_; }
  void setDoesPeriodic(bool does) { doesPeriodic_ = does; }
  bool doNotQuery() const { return doNotQuery_; }
  void setDoNotQuery(bool doNot) { doNotQuery_ = doNot; }

  /// Names of notifications; a check-in's is kept exactly as it came, so it may be anything or absent.
  Value desiredNotifications() const { return desiredNotifications_.load(); }
  void setDesiredNotifications(Value names) { desiredNotifications_.store(std::move(names)); }
  bool desiresNotification(const std::string& name) const;

  /// The number of the user that the identifier belongs to, who checked in with it; none in a record made from a
  /// description and once the connection has ended.
  std::optional<std::uint32_t> owner() const {
    const std::int64_t user = owner_;
    return user == nobody ? std::nullopt : std::optional(static_cast<std::uint32_t>(user));
  }
  void setOwner(std::optional<std::uint32_t> user) { owner_ = user ? std::int64_t{*user} : nobody; }

  const std::optional<ipc::Endpoint>& endpoint() const { return endpoint_; }
  void setEndpoint(ipc::Endpoint endpoint) { endpoint_ = std::move(endpoint); }
  /// Who checked in with the identifier; none in a record made from a description.
  const std::optional<ipc::Peer>& checkedInBy() const { return checkedInBy_; }
  void setCheckedInBy(ipc::Peer peer) { checkedInBy_ = std::move(peer); }
  /// The connection to the endpoint; none in a record made from a description.
  const std::optional<ipc::Connection>& vexConn() const { return vexConn_; }
  void setVexConn(ipc::Connection connection) { vexConn_ = std::move(connection); }

  /// From items of the call queue: where a call to the service goes: vexConn(), or else a connection to the IPC service
  /// named by the identifier, which is opened when first needed, kept, and opened anew after it has ended.
  ipc::Connection connectionForCall();
  /// Keeps the calls to this service in the order in which they were asked for.
  const SerialQueue& call_queue() const { return call_queue_; }

 private:
  ipc::Connection makeNamedConnection();
  void forgetNamedConnection(const void* identity);

  const std::string ID_;
  std::atomic<bool> doesPurge_ = false;
  std::atomic<bool> doesPeriodic_ = false;
  std::atomic<bool> doNotQuery_ = false;
  AtomicProperty<Value> desiredNotifications_;
  static constexpr std::int64_t nobody = -1;
  std::atomic<std::int64_t> owner_ = nobody;
  std::optional<ipc::Endpoint> endpoint_;
  std::optional<ipc::Peer> checkedInBy_;
  std::optional<ipc::Connection> vexConn_;
  const SerialQueue call_queue_{"com.tessaly.kelvane_service_call"};
  AtomicProperty<std::optional<ipc::Connection>> namedConnection_;
};

/// Identifier to record.
using ServiceTable = std::map<std::string, std::shared_ptr<KLService>, std::less<>>;

}  // namespace kelvane
