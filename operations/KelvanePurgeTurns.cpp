// SPDX-License-Identifier: Apache-2.0
// Whom a purge asks again within a pass, when, and how a pass is found to be over.
#include <utility>

#include "operations/KelvanePurgeOperation.h"
#include "protocols/Keys.h"
#include "support/Settings.h"
#include "support/Volumes.h"

namespace kelvane {

/// Comes before the pass queues a request for each of so many services.
void KelvanePurgeOperation::beginRounds(std::size_t requests) {
  collection_queue().async([self = self(), requests] {
    self->collection_queue().assertCurrent();
    self->round_.beginPass(requests, settings.endPassesEarly);
    if (self->round_.isOver(self->inFlightOnQueue())) {
      // There is nothing to ask for, or nobody to ask.
      self->signalPass();
    }
  });
}

/// A pass is over, and with it its rounds.
void KelvanePurgeOperation::endRounds() {
  collection_queue().async([self = self()] {
    self->collection_queue().assertCurrent();
    self->round_.endPass();
    if (self->patienceLimit_) {
      self->patienceLimit_->signal();
    }
  });
}

/// For a request whose block the round counts as queued.
void KelvanePurgeOperation::queueTurn(PurgeServiceRequest request) {
  message_queue().async([self = self(), request = std::move(request)] {
    self->requestFromService(request);
    self->changeRound([](PurgeRound& round) { round.blockRan(); });
  });
}

/// It gave the whole of its share, by its own account. This comes before it leaves the in-flight set; the rest of what
/// its answer leads to comes then.
void KelvanePurgeOperation::queueAgain(PurgeServiceRequest request, std::chrono::nanoseconds elapsed, Block rest) {
  const std::optional<std::uint64_t> freeBytes = volumeFreeBytes(request.info[keys::volume]);
  const bool isBorneOut = request.freeBytes && freeBytes && *freeBytes > *request.freeBytes;
  request.unborneAnswers = isBorneOut ? 0 : request.unborneAnswers + 1;
  if (request.unborneAnswers <= maximumUnborneAnswers) {
    collection_queue().sync([&] {
      collection_queue().assertCurrent();
      round_.hold(std::move(request), elapsed);
    });
    rest();
    return;
  }
  // Only words so far. Its block may run before it has left the set, where it is refused, or after; the pass does not
  // wait for it and may be over by then. Should it be asked again, and claim again, it is certainly refused.
  const bool mayBeAskedOnceMore = request.unborneAnswers == maximumUnborneAnswers + 1;
  message_queue().async([self = self(), request = std::move(request)] { self->requestFromService(request); });
  if (mayBeAskedOnceMore) {
    rest();
  } else {
    message_queue().async(std::move(rest));
  }
}

/// Notes what has happened and draws the conclusions: whose turn it is, and whether the pass is over.
void KelvanePurgeOperation::changeRound(const std::function<void(PurgeRound&)>& change) {
  bool isOver = false;
  collection_queue().sync([&] {
    collection_queue().assertCurrent();
    change(round_);
    for (PurgeServiceRequest& request : round_.takeTurns(inFlightOnQueue())) {
      queueTurn(std::move(request));
    }
    isOver = round_.isOver(inFlightOnQueue());
    limitPatience();
  });
  if (isOver) {
    signalPass();
  }
}

/// One thread at a time waits out the patience of the rounds, and only while somebody is held in one.
void KelvanePurgeOperation::limitPatience() {
  std::uint64_t number = round_.waitNumber();
  if (!round_.isAnyoneHeld() || std::exchange(limitedWait_, number) == number) {
    return;
  }
  if (patienceLimit_) {
    patienceLimit_->signal();
    return;
  }
  const Semaphore changed(0);
  patienceLimit_ = changed;
  globalQueue::async([self = self(), changed, number, patience = round_.patience()]() mutable {
    std::optional<std::chrono::nanoseconds> left = patience;
    while (left) {
      const bool isPatienceOver = !changed.wait(*left);
      left = self->afterWait(number, isPatienceOver);
    }
  });
}

/// Ends the round if it is still the one that was waited for, and tells how long to wait for the one there is now.
std::optional<std::chrono::nanoseconds> KelvanePurgeOperation::afterWait(std::uint64_t& number, bool isPatienceOver) {
  std::optional<std::chrono::nanoseconds> left;
  collection_queue().sync([&] {
    collection_queue().assertCurrent();
    if (isPatienceOver && round_.waitNumber() == number) {
      for (PurgeServiceRequest& request : round_.takeTurnsAtOnce(inFlightOnQueue())) {
        queueTurn(std::move(request));
      }
    }
    number = round_.waitNumber();
    if (round_.isAnyoneHeld()) {
      left = round_.patience();
    } else {
      patienceLimit_.reset();
    }
  });
  return left;
}

}  // namespace kelvane
