// SPDX-License-Identifier: Apache-2.0
// Frees bytes on one volume by asking the purging services, in passes of rising urgency.
#include "operations/KelvanePurgeOperation.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "protocols/Keys.h"
#include "protocols/Names.h"
#include "support/KelvaneLog.h"
#include "support/Statistics.h"
#include "support/Timebase.h"

namespace kelvane {

namespace {

constexpr char startName[] = "-[KelvanePurgeOperation startOperation:]";

/// The tens of percent that a share was met by: 57 % gives 50. Too large for an int32 saturates.
std::int32_t percentageBucket(std::int64_t requested, std::int64_t purged) {
  const float ratio = static_cast<float>(purged) / static_cast<float>(requested);
  const double bucket = std::trunc(static_cast<double>(ratio) * 10.0) * 10.0;
  using Limits = std::numeric_limits<std::int32_t>;
  return static_cast<std::int32_t>(std::clamp<double>(bucket, Limits::min(), Limits::max()));
}

}  // namespace

std::shared_ptr<KelvanePurgeOperation> KelvanePurgeOperation::initWithInfo(const Value& info,
                                                                           const ServiceTable& services) {
  std::shared_ptr<KelvanePurgeOperation> operation(new KelvanePurgeOperation);
  if (!operation->KelvaneOperation::initWithInfo(info, {})) {
    return nullptr;
  }
  operation->setServices(selected(services, [](const KLService& service) { return service.doesPurge(); }));
  operation->viable_purging_services_ = operation->services().size();
  operation->purge_amount_needed_ = info[keys::amount].uint64Value();
  return operation;
}

void KelvanePurgeOperation::startOperation(const Completion& completion) {
  const MutableDictionary working(info());
  const std::uint64_t requestedTimeout = info()[keys::purgeTimeout].uint64Value();
  KELVANE_TRACE("%s user_timeout_seconds: %llu", startName, requestedTimeout);
  const std::uint64_t userTimeout = std::min(requestedTimeout, maximumTimeoutSeconds);

  const Value amount = result()[keys::amount];
  if (!amount.isNumber()) {
    KELVANE_ERROR("%s %d amount is not a number: %@", startName, 90, amount);
    // The completion gets the working result, which holds no error; the error stays here.
    setResult(Value::Dictionary{{keys::error, "Parameter error, no Amount key in info dict"}});
  } else {
    purge_amount_needed_ = amount.uint64Value();
    purge_amount_reported_ = 0;
    if (const auto freespace = gain_.begin(working[keys::volume])) {
      working.set(keys::freespaceBegin, *freespace);
      KELVANE_TRACE("%s urgencyLimit: %d, info at start: %@", startName, urgencyLimit(), result());
      const std::uint64_t start = clock::ticks();
      runPasses(working, userTimeout, completion);
      finish(working, start);
    } else {
      // Whatever services gave, nobody could tell what came of it.
      KELVANE_ERROR("%s free space of %@ is not known", startName, working[keys::volume]);
      working.set(keys::amount, std::uint64_t{0});
    }
  }
  completion(working);
}

void KelvanePurgeOperation::runPasses(const MutableDictionary& working, std::uint64_t userTimeout,
                                      const Completion& completion) {
  for (std::uint32_t urgency = 1; urgency <= static_cast<std::uint32_t>(urgencyLimit()); ++urgency) {
    if (cancel()) {
      working.set(keys::operationCancelled, true);
      return;
    }
    runPass(working, urgency, userTimeout, completion);
  }
}

void KelvanePurgeOperation::runPass(const MutableDictionary& working, std::uint32_t urgency, std::uint64_t userTimeout,
                                    const Completion& completion) {
  const MutableDictionary operationInfo;
  const Semaphore semaphore(0);
  purge_semaphore_.store(semaphore);
  KELVANE_TRACE("%s IN QUEUE, amountPurged: %llu", startName, gain_.amount(working));
  // Once a pass, not once a purge, on purpose.
  addDistributionStat(names::daemon, statistics::purgeAmountRequested, static_cast<double>(purge_amount_needed()));

  const bool isShort = gain_.amount(working) < purge_amount_needed();
  beginRounds(isShort ? services().size() : 0);
  if (isShort) {
    KELVANE_TRACE("%s Urgency: %d", startName, urgency);
    // No request starts before all are queued.
    message_queue().suspend();
    for (const auto& [identifier, service] : services()) {
      queueServiceRequest(service, working, static_cast<std::int32_t>(urgency), operationInfo, completion);
    }
    message_queue().resume();
  }

  // The pass waits even when it queued nothing, unless it is to end early.
  const std::chrono::seconds wait(userTimeout != 0 ? userTimeout : timeoutSecondsPerUrgency * urgency);
  KELVANE_TRACE("%s waiting for %llu seconds, user_timeout_seconds: %llu, currentUrgency: %d", startName, wait.count(),
                userTimeout, urgency);
  const bool isTimedOut = !semaphore.wait(wait);
  endRounds();
  if (isTimedOut) {
    noteTimeout(operationInfo, wait, urgency);
  }

  viable_purging_services_ = services().size() - unguardedInFlightCount();
  const std::string key = formatted(keys::operationStatsUrgencyFormat, urgency);
  const std::uint64_t reported = purge_amount_reported();
  const std::uint64_t purged = gain_.amount(working);
  const std::string passStatistics =
      formatted("amount reported: %llu, amountPurged: %llu, purge_amount_needed: %llu, cancel: %s", reported, purged,
                purge_amount_needed(), cancel() ? "TRUE" : "FALSE");
  KELVANE_TRACE("%s %@ : %@", startName, key, passStatistics);
  operationInfo.set(key, passStatistics);
  working.set(formatted(keys::urgencyOperationInfoFormat, urgency), operationInfo);
}

void KelvanePurgeOperation::noteTimeout(const MutableDictionary& operationInfo, std::chrono::seconds wait,
                                        std::uint32_t urgency) {
  collection_queue().async([self = self(), operationInfo, wait, urgency] {
    self->collection_queue().assertCurrent();
    const Value identifiers = arrayOf(self->inFlightOnQueue());
    operationInfo.set(keys::servicesInFlight, identifiers);
    KELVANE_ERROR("%s timed out waiting for: %@", "-[KelvanePurgeOperation startOperation:]_block", identifiers);
    operationInfo.set(formatted(keys::urgencyTimeoutSecondsFormat, urgency), static_cast<std::uint64_t>(wait.count()));
  });
}

void KelvanePurgeOperation::finish(const MutableDictionary& working, std::uint64_t startTicks) {
  const std::uint64_t purged = gain_.amount(working);
  const double elapsed = nanosecondsSince(startTicks);
  addDistributionStat(names::daemon, statistics::purgeElapsedNanoseconds, elapsed);
  purge_semaphore_.store(std::nullopt);
  ended_ = clock::ticks();
  if (unguardedInFlightCount() != 0 && purged < purge_amount_needed()) {
    KELVANE_ERROR("%s cancelling purge", startName);
    cancelOperation();
  }

  working.set(keys::amountReported, purge_amount_reported());
  working.set(keys::elapsedTime, elapsed / nanosecondsPerSecond);
  addDistributionStat(names::daemon, statistics::purgeAmountPurged, static_cast<double>(purged));
  reportPercentageForAmountRequested(static_cast<std::int64_t>(purge_amount_needed()),
                                     static_cast<std::int64_t>(purged), statistics::total);
  // From here on the amount is what was purged, no longer what was asked for.
  working.set(keys::amount, purged);
  // Once more, for the replies that arrived meanwhile.
  working.set(keys::amountReported, purge_amount_reported());
  working.set(keys::freespaceEnd, gain_.freespace(working[keys::volume]));
  KELVANE_TRACE("%s result %@", startName, Value(working));
  const std::uint64_t amount = working[keys::amount].uint64Value();
  if (amount < purge_amount_needed()) {
    addReportStat(names::daemon, statistics::purgeFailed, 1);
    addDistributionStat(names::daemon, statistics::purgeDeficit, static_cast<double>(purge_amount_needed() - amount));
  }
}

bool KelvanePurgeOperation::isLongOver() const {
  const std::uint64_t ended = ended_;
  return ended != notEnded &&
         nanosecondsSince(ended) >= static_cast<double>(maximumTimeoutSeconds) * nanosecondsPerSecond;
}

void KelvanePurgeOperation::reportPercentageForAmountRequested(std::int64_t requested, std::int64_t amountPurged,
                                                               const std::string& identifier) const {
  constexpr char name[] = "-[KelvanePurgeOperation reportPercentageForAmountRequested:amountPurged:identifier:]";
  if (requested != 0) {
    const std::string key =
        formatted(statistics::purgedPercentFormat, identifier, percentageBucket(requested, amountPurged));
    addReportStat(names::daemon, key, 1);
    KELVANE_TRACE("%s %@", name, key);
  }
  addReportStat(names::daemon, formatted(statistics::purgedFormat, identifier), amountPurged);
  KELVANE_TRACE("%s %@ donated %lld of %lld", name, identifier, amountPurged, requested);
}

void KelvanePurgeOperation::cancelOperation() {
  cancel_ = true;
  collection_queue().async([self = self()] {
    self->collection_queue().assertCurrent();
    for (const std::string& identifier : self->inFlightOnQueue()) {
      globalQueue::async([self, identifier] {
        // The service stays in flight: its request's own failure takes it out.
        self->sendCancel(identifier, [] {
          KELVANE_TRACE("%s connection invalidated", "-[KelvanePurgeOperation cancelOperation]_block");
        });
      });
    }
  });
}

}  // namespace kelvane
