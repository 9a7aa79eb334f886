// SPDX-License-Identifier: Apache-2.0
// Whose turn it is within a pass of a purge.
#include "operations/PurgeRound.h"

#include <algorithm>
#include <iterator>

namespace kelvane {

void PurgeRound::beginPass(std::size_t blocks, bool endsEarly) {
  queuedBlocks_ += blocks;
  endsEarly_ = endsEarly;
}

void PurgeRound::endPass() {
  held_.clear();
  owing_.clear();
  isLookDue_ = false;
  endsEarly_ = false;
}

void PurgeRound::asked(const std::string& identifier, std::uint64_t donation) {
  std::erase_if(held_,
                [&identifier](const PurgeServiceRequest& request) { return request.identifier() == identifier; });
  if (donation != 0) {
    owing_.insert(identifier);
  }
}

void PurgeRound::hold(PurgeServiceRequest request, std::chrono::nanoseconds patience) {
  patience = std::max(patience, shortestPatience);
  if (held_.empty() || patience < patience_) {
    patience_ = patience;
    ++waitNumber_;
  }
  held_.push_back(std::move(request));
}

PurgeRound::Requests PurgeRound::takeTurns(const InFlight& inFlight) {
  return queuedBlocks_ == 0 && owing_.empty() ? takeTurnsAtOnce(inFlight) : Requests();
}

PurgeRound::Requests PurgeRound::takeTurnsAtOnce(const InFlight& inFlight) {
  // Who is being taken out of the set just now would be refused.
  const auto ready = std::stable_partition(held_.begin(), held_.end(), [&inFlight](const PurgeServiceRequest& request) {
    return inFlight.contains(request.identifier());
  });
  Requests turns(std::make_move_iterator(ready), std::make_move_iterator(held_.end()));
  held_.erase(ready, held_.end());
  if (!turns.empty()) {
    owing_.clear();
    queuedBlocks_ += turns.size();
  }
  return turns;
}

bool PurgeRound::isOver(const InFlight& inFlight) {
  if (queuedBlocks_ != 0 || !held_.empty()) {
    return false;
  }
  const bool isLookDue = std::exchange(isLookDue_, false) || endsEarly_;
  if (!isLookDue || !inFlight.empty()) {
    return false;
  }
  endsEarly_ = false;
  return true;
}

}  // namespace kelvane
