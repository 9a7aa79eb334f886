// SPDX-License-Identifier: Apache-2.0
// Tells how much the services could free on one volume.
#include "operations/KelvanePurgeableOperation.h"

#include "operations/SharedRegistry.h"
#include "platform/Archive.h"
#include "platform/Clock.h"
#include "platform/Limits.h"
#include "platform/PropertyList.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"
#include "support/CallService.h"
#include "support/KelvaneLog.h"
#include "support/Statistics.h"
#include "support/Timebase.h"

namespace kelvane {

namespace {

constexpr char startName[] = "-[KelvanePurgeableOperation startOperation:]";
constexpr char blockName[] = "-[KelvanePurgeableOperation startOperation:]_block";

constexpr std::chrono::seconds submissionTimeout{10};
constexpr std::uint64_t ticks = 15;
constexpr std::uint32_t tickMicroseconds = 10'000;
/// How often the mildest patience is extended, and from which tick to which it is taken back.
constexpr int extensions = 5;
constexpr std::uint64_t extendedTick = 14;
constexpr std::uint64_t resumedTick = 1;

// With what is around them, a service's amount and its date.
static_assert((limits::recentAmountEntries + 2) * limits::endpoints + 16 <= limits::archiveEntries);

/// Whether the record has room for an amount, which may be anything.
bool isRemembered(const Value& amount) {
  if (amount.isNumber()) {
    return true;
  }
  const auto written = propertyList::writeBinary(amount);
  const Data* bytes = std::get_if<Data>(&written);
  const archive::Size size = archive::sizeOf(amount);
  return bytes != nullptr && bytes->size() <= limits::recentAmountBytes && size.bytes <= limits::recentAmountBytes &&
         size.entries <= limits::recentAmountEntries;
}

}  // namespace

std::shared_ptr<KelvanePurgeableOperation> KelvanePurgeableOperation::initWithInfo(const Value& info,
                                                                                   const ServiceTable& services) {
  std::shared_ptr<KelvanePurgeableOperation> operation(new KelvanePurgeableOperation);
  if (!operation->KelvaneOperation::initWithInfo(info, {})) {
    return nullptr;
  }
  operation->setServices(
      selected(services, [](const KLService& service) { return service.doesPurge() && !service.doNotQuery(); }));
  return operation;
}

void KelvanePurgeableOperation::startOperation(const Completion& completion) {
  const Value message = info();
  const std::uint64_t start = clock::ticks();
  KELVANE_TRACE("%s ENTRY, info: %@", startName, message);
  askServices(cachedInfo(message)[keys::servicesToQuery], message);
  if (inFlightCount() != 0) {
    awaitReplies();
  }
  const Value cached = cachedInfo(message);
  KELVANE_TRACE("%s cachedInfo (2nd pass): %@", startName, cached);
  const Value result = resultOf(cached[keys::servicesToCount]);
  KELVANE_TRACE("%s Still in flight: %@", startName, arrayOf(inFlight()));
  KELVANE_TRACE("%s elapsed time: %f result: %@", startName, nanosecondsSince(start) / nanosecondsPerSecond, result);
  // What has been answered is remembered, whatever becomes of this process.
  SharedRegistry::sharedKelvane().handOverState();
  completion(result);
}

void KelvanePurgeableOperation::askServices(const Value& identifiers, const Value& message) {
  const Group submissions;
  for (const Value& identifier : *identifiers.array()) {
    const std::shared_ptr<KLService>& service = services().find(*identifier.string())->second;
    if (!optOutService(service->ID(), false) && updateInFlight(service->ID(), true)) {
      submissions.asyncGlobal([self = self(), service, message] { self->askService(service, message); });
    }
  }
  // For the calls to be made, not to be answered.
  static_cast<void>(submissions.wait(submissionTimeout));
}

void KelvanePurgeableOperation::askService(const std::shared_ptr<KLService>& service, const Value& message) {
  const std::string& identifier = service->ID();
  CallServiceAsync(
      service,
      [self = self(), identifier, message](const KelvaneServiceProxy& proxy, const Block& done) {
        KELVANE_TRACE("%s ^^^asking %@ for urgency %d", blockName, identifier, self->urgencyLimit());
        const std::uint64_t start = clock::ticks();
        proxy.servicePurgeable(self->urgencyLimit(), message, [self, identifier, message, start, done](const Value& r) {
          self->handleReply(identifier, message, start, r, done);
        });
      },
      [self = self(), identifier] {
        KELVANE_TRACE("%s connection invalidated: %@", blockName, identifier);
        self->updateInFlight(identifier, false);
      });
}

void KelvanePurgeableOperation::handleReply(const std::string& identifier, const Value& message,
                                            std::uint64_t startTicks, const Value& reply, const Block& done) {
  const double elapsed = nanosecondsSince(startTicks);
  addDistributionStat(names::daemon, formatted(statistics::servicePurgeableElapsedFormat, identifier), elapsed);
  KELVANE_TRACE("%s %@ took %f seconds, returned: %@", blockName, identifier, elapsed / nanosecondsPerSecond, reply);
  const Value amount = reply.isAbsent() ? Value(0) : reply[keys::amount];
  if (reply.contains(keys::optOut)) {
    optOutService(identifier, true);
    KELVANE_TRACE("%s %@ has %@, skipping", blockName, identifier, reply);
  }
  if (!isRemembered(amount)) {
    KELVANE_ERROR("%s %@ answered without an amount that can be kept: %@", blockName, identifier, shortened(reply));
  } else {
    // Queued before the service leaves the in-flight set, so that whoever finds the set empty finds the answer too.
    updateServiceStats(identifier, Value::Dictionary{{keys::amount, amount}, {keys::volume, message[keys::volume]}});
  }
  done();
  updateInFlight(identifier, false);
}

void KelvanePurgeableOperation::awaitReplies() const {
  KELVANE_TRACE("%s ^^^waiting for a little bit", startName);
  int extensionsLeft = extensions;
  for (std::uint64_t tick = 0; tick < ticks;) {
    if (inFlightCount() == 0) {
      KELVANE_TRACE("%s ^^^beat the timeout, woohoo!", startName);
      break;
    }
    KELVANE_TRACE("%s --------- %s --------- %llu ---------", startName, tick % 2 == 0 ? "tick" : "tock", tick);
    clock::sleepMicroseconds(tickMicroseconds);
    if (urgencyLimit() == maximumUrgency && extensionsLeft != 0 && tick == extendedTick) {
      KELVANE_TRACE("%s maxExtensions: %d", startName, extensionsLeft);
      --extensionsLeft;
      tick = resumedTick;
    } else {
      ++tick;
    }
  }
  KELVANE_TRACE("%s ^^^done waiting, inFlight: %@", startName, arrayOf(inFlight()));
}

Value KelvanePurgeableOperation::resultOf(const Value& servicesToCount) const {
  Value::Dictionary result = *servicesToCount.dictionary();
  // Unsigned, so that the sum wraps.
  std::uint64_t total = 0;
  for (const auto& [identifier, amount] : result) {
    if (amount.isNumber()) {
      total += static_cast<std::uint64_t>(amount.int64Value());
    } else {
      KELVANE_ERROR("%s %d %@ num is not a number: %@", startName, 163, identifier, amount);
    }
  }
  result[keys::totalAvailable] = static_cast<std::int64_t>(total);
  result[keys::volume] = volume();
  return Value(std::move(result));
}

bool KelvanePurgeableOperation::optOutService(const std::string& identifier, bool add) {
  bool isOptedOut = false;
  collection_queue().sync([&] {
    const Date now = clock::now();
    if (add) {
      optOuts_.set(identifier, now);
      return;
    }
    const Value since = optOuts_[identifier];
    isOptedOut = since.isDate() && now.secondsSince1970 - since.date()->secondsSince1970 < optOutSeconds;
    if (!isOptedOut) {
      optOuts_.remove(identifier);
    }
  });
  return isOptedOut;
}

}  // namespace kelvane
