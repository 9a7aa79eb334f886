// SPDX-License-Identifier: Apache-2.0
// The registry as its clients see it: check-in and space requests.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "operations/KelvaneOperation.h"
#include "operations/SharedRegistry.h"
#include "support/KelvaneExportedObject.h"
#include "support/KelvaneServiceProxy.h"
#include "support/LiveServiceTable.h"

namespace kelvane {

/// The operations that the daemon's listener exports, and the tables that they work on. The registry derives
/// from it and adds the dispatch of requests to operations. Requests arrive on threads that may block.
class ClientInterface : public SharedRegistry, public KelvaneExportedObject {
 public:
  using ResultCallback = std::function<void(const Value&)>;

  /// A service that no description names makes itself known. It is connected back to, pinged and answered
  /// after its pong; it stays known until that connection ends. A described service changes nothing and is
  /// answered with none at once. Without "SERVICE_ENTITLEMENT" there is no answer at all.
  void clientCheckin(const std::string& identifier, const ipc::Endpoint& endpoint, const Value& info,
                     CheckinReply reply) override;

  /// Needs "PURGE_ENTITLEMENT", blocks for as long as the purge takes, and is answered from the global queue
  /// with the purge's result, or with none.
  void clientPurge(const Value& info, ValueReply replyBlock) override;

  /// Looks the info's token up in the purge registry and cancels what it finds. The purge registry does not
  /// exist, so all this does is reply.
  void clientCancelPurge(const Value& info, Reply replyBlock) override;

 protected:
  ClientInterface() = default;

  virtual Value purge(const Value& info, const ResultCallback& callback) = 0;
  virtual bool pingService(const KelvaneServiceProxy& proxy) = 0;

  /// The service table. Everything known from descriptions is in it from the start; check-ins come and go.
  LiveServiceTable services_ KELVANE_GUARDED_BY(queues_.collection_queue);
  /// Identifiers of the services known from descriptions.
  std::set<std::string, std::less<>> daemons_ KELVANE_GUARDED_BY(queues_.daemons_queue);
  /// Purges under way, by token. Deliberately never made: what is put in is lost and nothing is ever found.
  std::unique_ptr<std::map<std::string, std::shared_ptr<KelvaneOperation>>> purgeOperations_
      KELVANE_GUARDED_BY(queues_.collection_queue);

 private:
  void checkIn(const std::string& identifier, const ipc::Endpoint& endpoint, const Value& info,
               const CheckinReply& reply) KELVANE_REQUIRES(queues_.collection_queue);
  std::shared_ptr<KLService> connectService(const std::string& identifier, const ipc::Endpoint& endpoint)
      KELVANE_REQUIRES(queues_.collection_queue);
  void removeService(const std::string& identifier, const std::weak_ptr<KLService>& record);
};

}  // namespace kelvane
