// SPDX-License-Identifier: Apache-2.0
// The registry as its clients see it: check-in, space requests and the state store.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "client/StateLimits.h"
#include "operations/KelvaneOperation.h"
#include "operations/SharedRegistry.h"
#include "platform/Preferences.h"
#include "protocols/Keys.h"
#include "support/Entitlements.h"
#include "support/FairQueue.h"
#include "support/KelvaneExportedObject.h"
#include "support/KelvaneServiceProxy.h"
#include "support/LiveServiceTable.h"
#include "support/Refusals.h"

namespace kelvane {

/// The operations that the daemon's listener exports, and the tables that they work on. The registry derives
/// from it and adds the dispatch of requests to operations. Requests arrive on threads that may block.
class ClientInterface : public SharedRegistry, public KelvaneExportedObject {
 public:
  using ResultCallback = std::function<void(const Value&)>;
  /// The connection of the client that an operation is for; none for the daemon's own.
  using Requester = std::optional<ipc::Connection>;

  /// A service that no description names makes itself known. It is connected back to, pinged and answered
  /// after its pong; it stays known until that connection ends. A described service changes nothing and is
  /// answered with none at once. Without "SERVICE_ENTITLEMENT" there is no answer at all.
  void clientCheckin(const std::string& identifier, const ipc::Endpoint& endpoint, const Value& info,
                     CheckinReply reply) override;

  /// The live table's: a check-in that is still to be dealt with is not in it.
  std::optional<std::uint32_t> ownerOf(const std::string& identifier) const override KELVANE_NO_THREAD_SAFETY_ANALYSIS;

  /// Need "PURGEABLE_ENTITLEMENT" and "ITEMIZED_PURGEABLE_ENTITLEMENT", and are the same in everything else: they
  /// block until the query has run, and are answered from the global queue with its result, or with none.
  void clientPurgeableSpace(const Value& info, ValueReply replyBlock) override;
  void clientItemizedPurgeableSpace(const Value& info, ValueReply replyBlock) override;

  /// Needs "PURGE_ENTITLEMENT", blocks for as long as the purge takes, and is answered from the global queue
  /// with the purge's result, or with none.
  void clientPurge(const Value& info, ValueReply replyBlock) override;

  /// Looks the info's token up in the purge registry and cancels what it finds. The purge registry does not
  /// exist, so all this does is reply.
  void clientCancelPurge(const Value& info, Reply replyBlock) override;

  /// Stores a value in the state store, or removes the entry when the value is absent. Returns at once; answered when
  /// the disk has it. Without a suite what is set is lost, and answered all the same.
  void clientSetState(const Value& value, const std::string& key, SetReply replyBlock) override;
  /// Answers with a value of the state store, or its default, or none. The key "KELVANE_USER_DEFAULTS" stands for the
  /// whole store, filled in with the defaults, but for none while nothing is stored. Returns at once.
  void clientGetState(const Value& key, ValueReply replyBlock) override;

  /// The same on the defaults queue; off it they stop the process. The setter's reply comes when the value is stored
  /// in memory, and before the disk has it.
  void _clientSetState(const Value& value, const std::string& key, const SetReply& replyBlock);
  void _clientGetState(const Value& key, const ValueReply& replyBlock);
  StateObject clientGetStateSync(const Value& key) override;
  void clientSetStateSync(const StateObject& value, const std::string& key) override;
  void handOverState() override;

 protected:
  ClientInterface() = default;

  virtual Value totalAvailable(const Value& info, const Requester& requester) = 0;
  virtual Value purge(const Value& info, const ResultCallback& callback, const Requester& requester) = 0;
  virtual void notifyRecipients(const std::string& name, const Value& value) = 0;
  virtual bool pingService(const KelvaneServiceProxy& proxy) = 0;

  /// Cuts off the services that may not check in any more, by the rules as they are now. Returns at once.
  void endUnentitledServices();

  /// To be called once at most, before anybody asks.
  void setUserDefaults(std::unique_ptr<PreferencesSuite> suite) KELVANE_NO_THREAD_SAFETY_ANALYSIS;

  /// The preferences suite; null when it could not be opened.
  std::unique_ptr<PreferencesSuite> userDefaults_;
  /// State values that hold until others are set; never stored.
  const Value default_values_ = Value::Dictionary{{keys::cacheEnabled, true}};

  Refusals refusals_;

  // What waits for these queues while the settings have users take turns.
  FairQueue fairPurges_{queues_.purge_queue};
  FairQueue fairQueries_{queues_.purgeable_queue};
  FairQueue fairCheckins_{queues_.collection_queue};

  /// The service table. Everything known from descriptions is in it from the start; check-ins come and go.
  LiveServiceTable services_ KELVANE_GUARDED_BY(queues_.collection_queue);
  /// Identifiers of the services known from descriptions.
  std::set<std::string, std::less<>> daemons_ KELVANE_GUARDED_BY(queues_.daemons_queue);
  /// Purges under way, by token. Deliberately never made: what is put in is lost and nothing is ever found.
  std::unique_ptr<std::map<std::string, std::shared_ptr<KelvaneOperation>>> purgeOperations_
      KELVANE_GUARDED_BY(queues_.collection_queue);

 private:
  /// What a check-in brings, whose it is, and the rules that allowed it.
  struct Checkin {
    std::string identifier;
    ipc::Endpoint endpoint;
    Value info;
    ipc::Peer peer;
    std::shared_ptr<const EntitlementRules> rules;
  };
  /// Has the service table changed on its queue, for a user or for the daemon itself; by turns where the settings say
  /// so.
  void changeTable(std::optional<std::uint32_t> user, Block change);
  void checkIn(const Checkin& checkin, const CheckinReply& reply) KELVANE_REQUIRES(queues_.collection_queue);
  std::shared_ptr<KLService> connectService(const Checkin& checkin) KELVANE_REQUIRES(queues_.collection_queue);
  void removeService(const std::string& identifier, const std::weak_ptr<KLService>& record);

  using SpaceRequest = Value (ClientInterface::*)(const Value& info, const Requester& requester);
  void answerSpaceRequest(const char* name, const char* entitlement, const Value& info, const ValueReply& replyBlock,
                          SpaceRequest work);
  Value purgeWithoutCallback(const Value& info, const Requester& requester) { return purge(info, nullptr, requester); }

  std::optional<StateError> whyNotStored(const StateTotals& totals, const Value& value, const std::string& key);
  Value stateValue(const std::string& key) const;
  std::shared_ptr<KelvaneRecentInfo> decoded(const Value& data) KELVANE_REQUIRES(queues_.defaults_queue);

  /// What is stored in the suite comes to this.
  StateTotals stateTotals_ KELVANE_GUARDED_BY(queues_.defaults_queue);

  /// What an archive in the store means, remembered by the identity of its bytes so that they need not be decoded
  /// at every reply of every service.
  struct RememberedArchive {
    Value data;
    /// Null when the bytes are no archive of a record.
    std::shared_ptr<KelvaneRecentInfo> record;
    /// The record's number of changes when it was what the bytes say.
    std::uint64_t changes = 0;
  };
  RememberedArchive rememberedArchive_ KELVANE_GUARDED_BY(queues_.defaults_queue);
};

}  // namespace kelvane
