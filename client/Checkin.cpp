// SPDX-License-Identifier: Apache-2.0
// Service check-in: how services that no description names become known, and cease to be.
#include "client/ClientInterface.h"
#include "client/StateLimits.h"
#include "protocols/KelvaneServiceProtocol.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"
#include "support/Entitlements.h"
#include "support/KelvaneLog.h"
#include "support/Settings.h"

namespace kelvane {

namespace {
constexpr char endName[] = "ClientInterface::endUnentitledServices";
constexpr char checkinName[] = "-[Kelvane clientCheckin:endpoint:info:reply:]";
constexpr char blockName[] = "-[Kelvane clientCheckin:endpoint:info:reply:]_block";

/// Whether the service that checked in may do so still. Of a connection that has ended the kernel does not tell any
/// more which program and unit were at its end, so the endpoint's end counts as well, if it is the same user's.
bool mayStillServe(const KLService& record) {
  const ipc::Peer& caller = *record.checkedInBy();
  const ipc::Peer server = record.vexConn()->peer();
  return peerMayServe(caller, record.ID()) ||
         (server.userNumber() == caller.userNumber() && peerMayServe(server, record.ID()));
}
}  // namespace

void ClientInterface::clientCheckin(const std::string& identifier, const ipc::Endpoint& endpoint, const Value& info,
                                    CheckinReply reply) {
  bool described = false;
  daemons_queue().sync([&] {
    daemons_queue().assertCurrent();
    described = daemons_.contains(identifier);
  });
  if (described) {
    reply({}, {});
    return;
  }
  const ipc::Peer peer = currentConnection().peer();
  const auto rules = entitlementRules();
  if (!peerIsEntitled(peer, {entitlements::service})) {
    KELVANE_ERROR("%s Connection is not entitled!", checkinName);
    refusals_.tellLack(checkinName, "check-in", peer, entitlements::service);
    return;
  }
  if (const auto error = whyTooMuchToKeep(identifier, info[keys::notifications])) {
    reply({}, CheckinError{CheckinError::Cause::TooMuch, *error});
    return;
  }
  const Checkin checkin = {identifier, endpoint, info, peer, rules};
  changeTable(peer.userNumber(), [this, checkin, reply = std::move(reply)] {
    collection_queue().assertCurrent();
    checkIn(checkin, reply);
  });
}

void ClientInterface::changeTable(std::optional<std::uint32_t> user, Block change) {
  if (settings.fairQueues) {
    fairCheckins_.async(user, std::move(change));
  } else {
    collection_queue().async(std::move(change));
  }
}

std::optional<std::uint32_t> ClientInterface::ownerOf(const std::string& identifier) const {
  const std::shared_ptr<KLService> record = services_.find(identifier);
  return record ? record->owner() : std::nullopt;
}

void ClientInterface::checkIn(const Checkin& checkin, const CheckinReply& reply) {
  const std::string& identifier = checkin.identifier;
  const Value& info = checkin.info;
  const std::uint32_t user = checkin.peer.userNumber();
  // They may have been read again while it waited.
  if (checkin.rules != entitlementRules() && !peerMayServe(checkin.peer, identifier)) {
    KELVANE_ERROR("%s Connection is not entitled!", blockName);
    return;
  }
  std::shared_ptr<KLService> record = services_.find(identifier);
  // Another user may have waited before this one, and nobody had checked in when they came.
  if (record && settings.ownedIdentifiers && record->owner().value_or(user) != user) {
    KELVANE_ERROR("%s %@ is another user's than uid %u", blockName, identifier, user);
    reply({}, CheckinError::notOwned());
    return;
  }
  if (record) {
    KELVANE_TRACE("%s operating on an existing service", blockName);
  } else {
    record = connectService(checkin);
  }
  record->setDoesPeriodic(info[keys::periodic].boolValue());
  record->setDoesPurge(info[keys::purge].boolValue());
  record->setDesiredNotifications(info[keys::notifications]);
  reply(Value::Dictionary{{keys::id, identifier}, {keys::anonymous, true}}, {});
}

std::shared_ptr<KLService> ClientInterface::connectService(const Checkin& checkin) {
  const std::string& identifier = checkin.identifier;
  const auto record = std::make_shared<KLService>(identifier);
  record->setEndpoint(checkin.endpoint);
  record->setOwner(checkin.peer.userNumber());
  record->setCheckedInBy(checkin.peer);
  const ipc::Connection connection = ipc::Connection::toEndpoint(checkin.endpoint);
  record->setVexConn(connection);
  services_.set(record);

  // The record owns the connection, so the connection's handlers must not own the record.
  const std::weak_ptr<KLService> weakRecord = record;
  connection.setInvalidationHandler([this, identifier, weakRecord] {
    KELVANE_TRACE("%s invalidationHandler ENTRY", blockName);
    removeService(identifier, weakRecord);
  });
  connection.setInterruptionHandler([this, identifier, weakRecord] {
    KELVANE_TRACE("%s interruptionHandler ENTRY", blockName);
    removeService(identifier, weakRecord);
  });
  connection.setRemoteInterface(KelvaneServiceProtocol::interface);
  const KelvaneServiceProxy proxy(connection.remoteProxy([record](const std::optional<ipc::CallError>& error) {
    if (error && error->cause == ipc::CallError::Cause::Unanswered) {
      KELVANE_ERROR("%s %@ has not answered its ping: %@", blockName, record->ID(), error->text);
    } else if (error) {
      KELVANE_TRACE("%s peerHandleOrFault error: %@", blockName, error->text);
    }
    record->vexConn()->invalidate();
  }));
  connection.resume();
  // Without a limit in the settings, a service that never answers holds the collection queue for good.
  pingService(proxy);
  return record;
}

void ClientInterface::endUnentitledServices() {
  // After those that have been checked in by the rules from before.
  collection_queue().async([this] {
    collection_queue().assertCurrent();
    // Elsewhere, as what rules ask for may be on a disk that does not answer.
    globalQueue::async([services = services_.snapshot()] {
      for (const auto& [identifier, record] : *services) {
        if (record->vexConn() && !record->vexConn()->hasEnded() && !mayStillServe(*record)) {
          KELVANE_ERROR("%s the rules do not let %@ be a service any more: %@", endName, identifier,
                        record->checkedInBy()->description());
          record->vexConn()->invalidate();
        }
      }
    });
  });
}

void ClientInterface::removeService(const std::string& identifier, const std::weak_ptr<KLService>& record) {
  // The daemon's own goes before all that users have waiting, whichever of it is next.
  changeTable(std::nullopt, [this, identifier, record] {
    collection_queue().assertCurrent();
    // Identity, not equality: a handler that fires late must not remove a newer record of the same name.
    services_.remove(identifier, record.lock());
  });
  // What is checked in from here on waits for the removal.
  if (const auto ended = record.lock()) {
    ended->setOwner(std::nullopt);
  }
}

}  // namespace kelvane
