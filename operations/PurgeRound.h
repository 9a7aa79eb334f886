// SPDX-License-Identifier: Apache-2.0
// Whose turn it is within a pass of a purge.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "operations/PurgeServiceRequest.h"

namespace kelvane {

/// A pass goes by rounds. Services that gave all they were asked for wait, out of flight, until everybody who was
/// asked in the round has answered, and are asked for new shares together: a share worked out while another service is
/// still deleting would take from one cache what the other is just about to give. For who does not answer they wait
/// only so long, once.
///
/// It also knows when the in-flight set may be found empty: not while anybody's turn is still to come, or the pass
/// would end with services left that have more to give.
///
/// Owned by a purge; lives on its collection queue. Knows no queue, clock or message itself.
class PurgeRound {
 public:
  using InFlight = std::set<std::string>;
  using Requests = std::vector<PurgeServiceRequest>;

  /// How long who gave waits for the others: as long again as it took itself, and no less than this.
  static constexpr std::chrono::nanoseconds shortestPatience = std::chrono::milliseconds(250);

  /// A pass is about to queue so many requests' blocks. One that endsEarly is over when there is nobody to wait for;
  /// else somebody has to have answered.
  void beginPass(std::size_t blocks, bool endsEarly);
  /// Forgets who waits and who is waited for: with a pass, its rounds end.
  void endPass();
  /// A request's block has run on the message queue.
  void blockRan() { --queuedBlocks_; }

  /// A service was marked in flight, to be sent a request of this many bytes; nothing is sent for 0. A turn that it
  /// still waited for, since a late answer to an earlier pass, would be refused, and is dropped.
  void asked(const std::string& identifier, std::uint64_t donation);
  /// It owes nothing any more.
  void settled(const std::string& identifier) { owing_.erase(identifier); }

  /// The service of this request has its next turn when the round is over.
  void hold(PurgeServiceRequest request, std::chrono::nanoseconds patience);
  /// Somebody answered: the set is to be looked at, as soon as nobody's turn is still to come. So a look is due after
  /// turns, too, should none of them have led to a request.
  void lookAtFlight() { isLookDue_ = true; }

  /// The requests whose turn has come. Their blocks count as queued.
  [[nodiscard]] Requests takeTurns(const InFlight& inFlight);
  /// As takeTurns(), without waiting for who has not answered; nobody waits for them again before they have.
  [[nodiscard]] Requests takeTurnsAtOnce(const InFlight& inFlight);
  /// Whether a look is due and finds nobody in flight, once. To be asked after takeTurns().
  [[nodiscard]] bool isOver(const InFlight& inFlight);

  bool isAnyoneHeld() const { return !held_.empty(); }
  /// How long those who are held wait, from when this wait began: the least patient decides.
  std::chrono::nanoseconds patience() const { return patience_; }
  /// Of that wait. Changes whenever one begins.
  std::uint64_t waitNumber() const { return waitNumber_; }

 private:
  Requests held_;
  std::set<std::string> owing_;
  std::size_t queuedBlocks_ = 0;
  std::uint64_t waitNumber_ = 0;
  std::chrono::nanoseconds patience_{};
  bool isLookDue_ = false;
  /// In such a pass a look is due all the time, until it has found nobody.
  bool endsEarly_ = false;
};

}  // namespace kelvane
