// SPDX-License-Identifier: Apache-2.0
// The clients' space requests: purge and cancel.
#include "client/ClientInterface.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"
#include "support/Entitlements.h"
#include "support/KelvaneLog.h"

namespace kelvane {

void ClientInterface::clientPurge(const Value& info, ValueReply replyBlock) {
  Value result;
  if (connectionIsEntitled(currentConnection(), {entitlements::purge})) {
    result = purge(info, nullptr);
  } else {
    KELVANE_ERROR("%s Connection is not entitled!", "-[Kelvane clientPurge:replyBlock:]");
  }
  globalQueue::async([result, replyBlock = std::move(replyBlock)] { replyBlock(result); });
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
