// SPDX-License-Identifier: Apache-2.0
// Turning requests into operations, each on its queue.
#include "daemon/Kelvane.h"
#include "operations/KelvanePeriodicOperation.h"
#include "operations/KelvanePurgeOperation.h"
#include "operations/KelvanePurgeableOperation.h"
#include "protocols/Keys.h"
#include "support/AtomicProperty.h"
#include "support/KelvaneLog.h"
#include "support/Settings.h"
#include "support/Token.h"

namespace kelvane {

namespace {

/// Whether nobody is there any more for whom a request could be carried out.
bool isAbandoned(const ClientInterface::Requester& requester) {
  return settings.dropAbandoned && requester && requester->hasEnded();
}

/// None for the daemon itself.
std::optional<std::uint32_t> userOf(const ClientInterface::Requester& requester) {
  return requester ? std::optional(requester->peer().userNumber()) : std::nullopt;
}

}  // namespace

Value Kelvane::purge(const Value& info, const ResultCallback& callback, const Requester& requester) {
  Value token = info[keys::token];
  const auto operation = KelvanePurgeOperation::initWithInfo(info, *copyServices());
  if (token.isAbsent()) {
    token = createKelvaneToken();
  }
  const auto kept = std::make_shared<AtomicProperty<Value>>();
  const Block work = [this, token = token.description(), operation, callback, kept, requester] {
    if (isAbandoned(requester)) {
      KELVANE_TRACE("%s the client has hung up", "-[Kelvane purge:callback:]_block");
      return;
    }
    collection_queue().sync([&] {
      collection_queue().assertCurrent();
      if (purgeOperations_) {
        purgeOperations_->insert_or_assign(token, operation);
      }
    });
    if (operation) {
      operation->startOperation([callback, kept](const Value& result) {
        if (callback) {
          callback(result);
        }
        kept->store(result);
      });
    }
    collection_queue().sync([&] {
      collection_queue().assertCurrent();
      if (purgeOperations_) {
        purgeOperations_->erase(token);
      }
    });
  };
  if (settings.fairQueues) {
    fairPurges_.sync(userOf(requester), work);
  } else {
    const Group group;
    group.async(purge_queue(), work);
    group.wait();
  }
  return kept->load();
}

Value Kelvane::totalAvailable(const Value& info, const Requester& requester) {
  Value kept;
  const Block work = [&] {
    if (isAbandoned(requester)) {
      KELVANE_TRACE("%s the client has hung up", "-[Kelvane totalAvailable:]_block");
      return;
    }
    // The live table: a check-in that waits for a pong does not hold queries up.
    const auto operation = KelvanePurgeableOperation::initWithInfo(info, *services());
    if (operation) {
      operation->startOperation([&kept](const Value& result) { kept = result; });
    }
  };
  if (settings.fairQueues) {
    fairQueries_.sync(userOf(requester), work);
  } else {
    purgeable_queue().sync(work);
  }
  return kept;
}

void Kelvane::performPeriodicsWithInfo(const Value& info) {
  const auto operation = KelvanePeriodicOperation::initWithInfo(info, *services());
  if (operation) {
    operation->startOperation([](const Value& result) {
      KELVANE_TRACE("%s result: %@", "-[Kelvane performPeriodicsWithInfo:]_block", result);
    });
  }
}

std::int64_t Kelvane::requestsInFlight(const Value& collection) const {
  std::size_t count = 0;
  collection_queue().sync([&] {
    if (const Value::Array* array = collection.array()) {
      count = array->size();
    } else if (const auto dictionary = collection.dictionary()) {
      count = dictionary->size();
    }
  });
  return static_cast<std::int64_t>(count);
}

}  // namespace kelvane
