// SPDX-License-Identifier: Apache-2.0
// The clients' space requests: query, purge and cancel.
#include "client/ClientInterface.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"
#include "support/Entitlements.h"
#include "support/KelvaneLog.h"

namespace kelvane {

void ClientInterface::clientPurgeableSpace(const Value& info, ValueReply replyBlock) {
  answerSpaceRequest("-[Kelvane clientPurgeableSpace:replyBlock:]", entitlements::purgeable, info, replyBlock,
                     &ClientInterface::totalAvailable);
}

void ClientInterface::clientItemizedPurgeableSpace(const Value& info, ValueReply replyBlock) {
  answerSpaceRequest("-[Kelvane clientItemizedPurgeableSpace:replyBlock:]", entitlements::itemizedPurgeable, info,
                     replyBlock, &ClientInterface::totalAvailable);
}

void ClientInterface::clientPurge(const Value& info, ValueReply replyBlock) {
  answerSpaceRequest("-[Kelvane clientPurge:replyBlock:]", entitlements::purge, info, replyBlock,
                     &ClientInterface::purgeWithoutCallback);
}

/// The answer is always made, and never on the request's thread.
void ClientInterface::answerSpaceRequest(const char* name, const char* entitlement, const Value& info,
                                         const ValueReply& replyBlock, SpaceRequest work) {
  Value result;
  if (connectionIsEntitled(currentConnection(), {entitlement})) {
    result = (this->*work)(info, currentConnection());
  } else {
    KELVANE_ERROR("%s Connection is not entitled!", name);
    refusals_.tellLack(name, "request", currentConnection().peer(), entitlement);
  }
  globalQueue::async([result, replyBlock] { replyBlock(result); });
}

void ClientInterface::clientCancelPurge(const Value& info, Reply replyBlock) {
  const std::string token = info[keys::token].description();
  std::shared_ptr<KelvaneOperation> operation;
  collection_queue().sync([&] {
    collection_queue().assertCurrent();
    if (purgeOperations_) {
      const auto found = purgeOperations_->find(token);
      operation = found != purgeOperations_->end() ? found->second : nullptr;
    }
  });
  if (operation) {
    operation->cancelOperation();
  }
  if (replyBlock) {
    replyBlock();
  }
}

}  // namespace kelvane
