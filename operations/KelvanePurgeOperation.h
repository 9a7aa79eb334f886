// SPDX-License-Identifier: Apache-2.0
// Frees bytes on one volume by asking the purging services, in passes of rising urgency.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "operations/KelvaneOperation.h"
#include "operations/PurgeGain.h"
#include "operations/PurgeRound.h"
#include "operations/PurgeServiceRequest.h"
#include "platform/MutableDictionary.h"

namespace kelvane {

/// One purge. Made and started by the registry's dispatch on its purge queue, whose thread it holds until
/// the purge is over. Each pass hands every service that purges an equal share of what is still missing,
/// waits for the answers up to a limit and notes what it achieved; the volume's own free space decides
/// when enough is gained, whatever the services claim.
///
/// The counters are read and written from all the threads that replies arrive on, each access by itself.
class KelvanePurgeOperation final : public KelvaneOperation {
 public:
  /// The longest time a request can give a pass.
  static constexpr std::uint64_t maximumTimeoutSeconds = 300;
  /// What a pass is given otherwise, times its urgency.
  static constexpr std::uint64_t timeoutSecondsPerUrgency = 2;
  /// So often in a row a service that says that it gave its share has another turn in the pass although the volume's
  /// free bytes did not rise meanwhile: another writer may have used what an honest one freed.
  static constexpr int maximumUnborneAnswers = 8;
  /// After so many turns in a pass a service has its next ones at a pace. Halving is done by then; one that takes back
  /// what it frees, or answers beside a writer that does, may be borne out until the pass's time is over.
  static constexpr int unpacedTurns = 64;
  /// A turn costs the daemon about a thirtieth of this.
  static constexpr std::uint32_t paceMicroseconds = 5000;

  /// Null when the info is refused. Only the services that purge are kept.
  static std::shared_ptr<KelvanePurgeOperation> initWithInfo(const Value& info, const ServiceTable& services);

  /// Blocks until the purge is over. The completion is called with each service's answer as it arrives, on
  /// the threads of the IPC facility and perhaps after the purge is over, and once with the result, before
  /// this returns. Late answers may still change the operation infos that the result holds.
  void startOperation(const Completion& completion) override;

  /// Ends the passes and asks the services in flight to stop; returns at once.
  void cancelOperation() override;

  /// Counts what one service, or "total", gave of what it was asked for, in bytes.
  void reportPercentageForAmountRequested(std::int64_t requested, std::int64_t amountPurged,
                                          const std::string& identifier) const;

  /// What divides the missing bytes when so many services are counted on: their number may drop to 0 meanwhile.
  static constexpr std::uint64_t divisorOf(std::uint64_t viable) { return viable != 0 ? viable : 1; }

  bool cancel() const { return cancel_; }
  std::uint64_t purge_amount_needed() const { return purge_amount_needed_; }
  std::uint64_t purge_amount_reported() const { return purge_amount_reported_; }
  std::uint64_t viable_purging_services() const { return viable_purging_services_; }

 private:
  KelvanePurgeOperation() = default;
  std::shared_ptr<KelvanePurgeOperation> self() {
    return std::static_pointer_cast<KelvanePurgeOperation>(shared_from_this());
  }

  void runPasses(const MutableDictionary& working, std::uint64_t userTimeout, const Completion& completion);
  void runPass(const MutableDictionary& working, std::uint32_t urgency, std::uint64_t userTimeout,
               const Completion& completion);
  void noteTimeout(const MutableDictionary& operationInfo, std::chrono::seconds wait, std::uint32_t urgency);
  void finish(const MutableDictionary& working, std::uint64_t startTicks);
  /// Whether it ended so long ago that no pass could have lasted until now. What was queued in its last pass may run
  /// after it; a service whose claims the volume does not bear out would be asked for ever.
  bool isLongOver() const;
  bool hasEnded() const { return ended_ != notEnded; }

  // One service, one urgency: KelvanePurgeServiceRequest.cpp.
  void queueServiceRequest(const std::shared_ptr<KLService>& service, const MutableDictionary& info,
                           std::int32_t urgency, const MutableDictionary& operationInfo, const Completion& completion);
  void requestFromService(PurgeServiceRequest request);
  void handleReply(const PurgeServiceRequest& request, std::uint64_t startTicks, const Value& reply, Block done);
  void finishReply(const PurgeServiceRequest& request, double elapsed, const Value& answer, std::uint64_t got,
                   const Block& done);
  void noteReport(const PurgeServiceRequest& request, std::uint64_t amount) const;

  void signalPass() const;

  // Who is asked again, and when: KelvanePurgeTurns.cpp.
  void beginRounds(std::size_t requests);
  void endRounds();
  void queueTurn(PurgeServiceRequest request);
  void queueAgain(PurgeServiceRequest request, std::chrono::nanoseconds elapsed, Block rest);
  void changeRound(const std::function<void(PurgeRound&)>& change);
  void limitPatience() KELVANE_REQUIRES(collection_queue());
  std::optional<std::chrono::nanoseconds> afterWait(std::uint64_t& number, bool isPatienceOver);

  std::atomic<bool> cancel_ = false;
  /// Bytes that the client asked for.
  std::atomic<std::uint64_t> purge_amount_needed_ = 0;
  /// Bytes that the services said they purged.
  std::atomic<std::uint64_t> purge_amount_reported_ = 0;
  /// Services still expected to give their share; divides what is missing.
  std::atomic<std::uint64_t> viable_purging_services_ = 0;
  PurgeGain gain_;
  static constexpr std::uint64_t notEnded = std::numeric_limits<std::uint64_t>::max();
  /// Ticks.
  std::atomic<std::uint64_t> ended_ = notEnded;
  /// The current pass's; none before the first pass and after the last.
  AtomicProperty<std::optional<Semaphore>> purge_semaphore_;
  PurgeRound round_ KELVANE_GUARDED_BY(collection_queue());
  /// Tells the thread that limits the rounds' patience that it waits for the wrong thing; none while there is no such
  /// thread.
  std::optional<Semaphore> patienceLimit_ KELVANE_GUARDED_BY(collection_queue());
  /// The number of the last wait that the thread was told of.
  std::uint64_t limitedWait_ KELVANE_GUARDED_BY(collection_queue()) = 0;
};

}  // namespace kelvane
