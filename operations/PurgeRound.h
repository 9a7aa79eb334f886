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

  /// A service has been sent a request, and owes nothing for it any more.
  void asked(const std::string& identifier) { owing_.insert(identifier); }
  void settled(const std::string& identifier) { owing_.erase(identifier); }

  /// The service of this request has its next turn when the round is over.
  void hold(PurgeServiceRequest request, std::chrono::nanoseconds patience);
  /// Somebody answered: the set is to be looked at, as soon as nobody's turn is still to come.
  void lookAtFlight() { isLookDue_ = true; }

  /// The requests whose turn has come. Their blocks count as queued.
  [[nodiscard]] Requests takeTurns(const InFlight& inFlight);
  /// As takeTurns(), without waiting for who has not answered; nobody waits for them again before they have.
  [[nodiscard]] Requests takeTurnsAtOnce(const InFlight& inFlight);
  /// Whether a look is due and finds nobody in flight, once. To be asked after takeTurns().
  [[nodiscard]] bool isOver(const InFlight& inFlight);

  bool isAnyoneHeld() const { return !held_.empty(); }
  /// Of the round under way; changes with each.
  std::uint64_t number() const { return number_; }
  std::chrono::nanoseconds patience() const { return patience_; }

 private:
  Requests held_;
  std::set<std::string> owing_;
  std::size_t queuedBlocks_ = 0;
  std::uint64_t number_ = 0;
  std::chrono::nanoseconds patience_{};
  bool isLookDue_ = false;
  /// In such a pass a look is due all the time, until it has found nobody.
  bool endsEarly_ = false;
};

}  // namespace kelvane
