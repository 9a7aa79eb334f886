// SPDX-License-Identifier: Apache-2.0
// One service's part in a purge: its share, its request and what becomes of its answer.
#include "operations/KelvanePurgeOperation.h"
#include "operations/SharedRegistry.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"
#include "support/CallService.h"
#include "support/KelvaneLog.h"
#include "support/Statistics.h"
#include "support/Timebase.h"

namespace kelvane {

namespace {
constexpr char blockName[] =
    "-[KelvanePurgeOperation queueServiceRequest:info:urgency:operationInfo:completion:]_block";

/// Nothing stays nothing.
Value withElapsedTime(const Value& reply, double nanoseconds) {
  if (!reply.isDictionary()) {
    return {};
  }
  const MutableDictionary answer(reply);
  answer.set(keys::elapsedTime, nanoseconds);
  return answer;
}

}  // namespace

void KelvanePurgeOperation::queueServiceRequest(const std::shared_ptr<KLService>& service,
                                                const MutableDictionary& info, std::int32_t urgency,
                                                const MutableDictionary& operationInfo, const Completion& completion) {
  queueTurn({service, info, urgency, operationInfo, completion});
}

void KelvanePurgeOperation::requestFromService(PurgeServiceRequest request) {
  KELVANE_TRACE("%s queuing service: %@", blockName, request.identifier());
  if (request.turns++ >= unpacedTurns) {
    clock::sleepMicroseconds(paceMicroseconds);
  }
  const auto [purged, freeBytes] = gain_.look(request.info);
  if (viable_purging_services() == 0 || purged >= purge_amount_needed() || cancel() || isLongOver()) {
    return;
  }
  const MutableDictionary message = request.info.copied();
  const std::uint64_t divisor = divisorOf(viable_purging_services());
  request.donation = (purge_amount_needed() - purged) / divisor;
  KELVANE_TRACE("%s donation (%lld) = (amount needed[%llu] - amount_purged[%llu]) / viable_purging_services[%llu])",
                blockName, static_cast<std::int64_t>(request.donation), purge_amount_needed(), purged, divisor);
  message.set(keys::amount, request.donation);
  // Marked first, tested after: a service with nothing to donate stays in flight until the purge is over.
  if (!updateInFlight(request.identifier(), true)) {
    return;
  }
  // Before it is sent: the answer may be there before this goes on.
  collection_queue().sync([this, &request] {
    collection_queue().assertCurrent();
    round_.asked(request.identifier(), request.donation);
  });
  if (request.donation == 0) {
    return;
  }
  request.freeBytes = freeBytes;
  CallServiceAsync(
      request.service,
      [self = self(), request, message](const KelvaneServiceProxy& proxy, const Block& done) {
        KELVANE_TRACE("%s requesting %lld bytes from %@ at urgency %d", blockName,
                      static_cast<std::int64_t>(request.donation), request.identifier(), request.urgency);
        const std::uint64_t start = clock::ticks();
        proxy.servicePurge(request.urgency, message, [self, request, start, done](const Value& reply) {
          self->handleReply(request, start, reply, done);
        });
      },
      // The pass is not signalled, even when this was the last one in flight: it waits out its time.
      [self = self(), identifier = request.identifier()] {
        KELVANE_TRACE("%s connection invalidated", blockName);
        self->updateInFlight(identifier, false);
        self->changeRound([&](PurgeRound& round) { round.settled(identifier); });
      },
      // What a service has not been sent when the purge ends would free what nobody waits for any more.
      [self = self(), wasOver = hasEnded()] { return wasOver || !self->hasEnded(); });
}

void KelvanePurgeOperation::handleReply(const PurgeServiceRequest& request, std::uint64_t startTicks,
                                        const Value& reply, Block done) {
  const std::string& identifier = request.identifier();
  const double elapsed = nanosecondsSince(startTicks);
  const Value amount = reply[keys::amount];
  const Value answer = withElapsedTime(reply, elapsed);
  if (!amount.isNumber()) {
    KELVANE_ERROR("%s %d num is not a number: %@", blockName, 232, shortened(amount));
  }
  const std::uint64_t got = amount.uint64Value();
  purge_amount_reported_ += got;
  noteReport(request, got);
  KELVANE_TRACE("%s %@ service purged: %llu", blockName, identifier, got);

  if (got < request.donation) {
    // It gave what it could. From 0 the count wraps, and every later share of the pass is 0.
    --viable_purging_services_;
    finishReply(request, elapsed, answer, got, done);
  } else {
    queueAgain(request, std::chrono::nanoseconds(static_cast<std::int64_t>(elapsed)),
               [self = self(), request, elapsed, answer, got, done = std::move(done)] {
                 self->finishReply(request, elapsed, answer, got, done);
               });
  }
}

void KelvanePurgeOperation::finishReply(const PurgeServiceRequest& request, double elapsed, const Value& answer,
                                        std::uint64_t got, const Block& done) {
  const std::string& identifier = request.identifier();
  if (request.completion) {
    KELVANE_TRACE("%s %@ calling completion with: %@", blockName, identifier, answer);
    request.completion(answer);
  }
  reportPercentageForAmountRequested(static_cast<std::int64_t>(request.donation), static_cast<std::int64_t>(got),
                                     identifier);
  done();
  updateInFlight(identifier, false);
  changeRound([&](PurgeRound& round) {
    round.settled(identifier);
    round.lookAtFlight();
  });
  KELVANE_TRACE("%s %@ took %f seconds, purged: %@", blockName, identifier, elapsed / nanosecondsPerSecond, answer);
  addDistributionStat(names::daemon, formatted(statistics::servicePurgeElapsedFormat, identifier), elapsed);
}

void KelvanePurgeOperation::signalPass() const {
  // Whichever pass is current by now; its semaphore may be another than when the request was sent.
  if (const std::optional<Semaphore> semaphore = purge_semaphore_.load()) {
    KELVANE_TRACE("%s All services accounted for, signalling the semaphore.", blockName);
    semaphore->signal();
  }
}

void KelvanePurgeOperation::noteReport(const PurgeServiceRequest& request, std::uint64_t amount) const {
  SharedRegistry::sharedKelvane().collection_queue().async(
      [operationInfo = request.operationInfo, identifier = request.identifier(), amount] {
        operationInfo.nested(keys::reportingServices).set(identifier, amount);
      });
}

}  // namespace kelvane
