// SPDX-License-Identifier: Apache-2.0
// Asks services to do their periodic maintenance on one volume.
#include "operations/KelvanePeriodicOperation.h"

#include <chrono>

#include "platform/Clock.h"
#include "protocols/Keys.h"
#include "support/CallService.h"
#include "support/KelvaneLog.h"
#include "support/Timebase.h"

namespace kelvane {

namespace {
constexpr char startName[] = "-[KelvanePeriodicOperation startOperation:]";
constexpr char blockName[] = "-[KelvanePeriodicOperation startOperation:]_block";
}  // namespace

/// Shared with the replies, which may come after the round is over.
struct KelvanePeriodicOperation::Round {
  std::atomic<std::uint64_t> amount = 0;
  const Semaphore semaphore{0};
};

std::shared_ptr<KelvanePeriodicOperation> KelvanePeriodicOperation::initWithInfo(const Value& info,
                                                                                 const ServiceTable& services) {
  std::shared_ptr<KelvanePeriodicOperation> operation(new KelvanePeriodicOperation);
  if (!operation->KelvaneOperation::initWithInfo(info, {})) {
    return nullptr;
  }
  operation->setServices(
      selected(services, [](const KLService& service) { return service.doesPurge() && !service.doesPeriodic(); }));
  return operation;
}

void KelvanePeriodicOperation::startOperation(const Completion& completion) {
  const auto round = std::make_shared<Round>();
  for (const auto& [identifier, service] : services()) {
    if (updateInFlight(identifier, true)) {
      KELVANE_TRACE("%s CallService with serviceID: %@", startName, identifier);
      callService(service, round);
    }
  }
  bool isInTime = true;
  // An answer that comes before the next service was asked finds nobody in flight, and signals. One limit holds for all
  // the waits that follow from it.
  const std::uint64_t start = clock::ticks();
  do {
    const std::chrono::nanoseconds passed(static_cast<std::int64_t>(nanosecondsSince(start)));
    isInTime = round->semaphore.wait(timeLimit - passed);
  } while (isInTime && inFlightCount() != 0);
  if (!isInTime) {
    KELVANE_TRACE("%s timed out waiting for: %@", startName, arrayOf(inFlight()));
  }
  completion(Value::Dictionary{{keys::amount, round->amount.load()}});
}

void KelvanePeriodicOperation::callService(const std::shared_ptr<KLService>& service,
                                           const std::shared_ptr<Round>& round) {
  const auto self = std::static_pointer_cast<KelvanePeriodicOperation>(shared_from_this());
  CallService(
      service,
      [self, round, identifier = service->ID()](const KelvaneServiceProxy& proxy, const Block& done) {
        globalQueue::async([self, round, identifier, proxy, done] {
          KELVANE_TRACE("%s calling proxy for %@", blockName, identifier);
          proxy.servicePeriodic(urgency, self->info(), [self, round, identifier, done](const Value& reply) {
            self->handleReply(identifier, reply, *round, done);
          });
        });
      },
      // The service stays in flight and nobody is woken: the round waits out its time.
      [] { KELVANE_TRACE("%s connection invalidated", blockName); });
}

void KelvanePeriodicOperation::handleReply(const std::string& identifier, const Value& reply, Round& round,
                                           const Block& done) {
  KELVANE_TRACE("%s proxy %@ replied, purged: %@", blockName, identifier, reply);
  done();
  const Value amount = reply[keys::amount];
  if (amount.isNumber()) {
    round.amount = amount.uint64Value();
  }
  updateInFlight(identifier, false);
  if (inFlightCount() == 0) {
    round.semaphore.signal();
  }
}

}  // namespace kelvane
