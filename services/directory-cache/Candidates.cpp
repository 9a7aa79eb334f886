// SPDX-License-Identifier: Apache-2.0
// The files that may go, oldest first, in bounded memory.
#include "services/directory-cache/Candidates.h"

#include <algorithm>
#include <utility>

namespace kelvane::directoryCache {

namespace {

bool isOlder(const FoundLink& left, const FoundLink& right) {
  return left.key < right.key;
}

}  // namespace

void Candidates::offer(FoundLink link) {
  if ((after_ && link.key <= *after_) || (cutOff_ && link.key >= *cutOff_)) {
    return;
  }
  pathBytes_ += link.path.size();
  links_.push_back(std::move(link));
  std::push_heap(links_.begin(), links_.end(), isOlder);
  while (links_.size() > bounds_.links || (pathBytes_ > bounds_.pathBytes && links_.size() > 1)) {
    std::pop_heap(links_.begin(), links_.end(), isOlder);
    pathBytes_ -= links_.back().path.size();
    cutOff_ = links_.back().key;
    links_.pop_back();
  }
}

Candidates::Round Candidates::take() {
  std::sort_heap(links_.begin(), links_.end(), isOlder);
  Round round;
  for (auto begin = links_.begin(); begin != links_.end();) {
    const auto end = std::find_if(begin, links_.end(), [&](const FoundLink& link) { return link.key != begin->key; });
    const bool isComplete = static_cast<nlink_t>(end - begin) == begin->links;
    // The last file's other names may be among those that did not fit. It is considered again in the next round,
    // unless it alone fills this one.
    const bool mayFollow = cutOff_ && end == links_.end() && begin != links_.begin() && !isComplete;
    if (isComplete) {
      Candidate candidate = {begin->key, begin->allocated, {}, begin->changed};
      for (auto link = begin; link != end; ++link) {
        candidate.links.push_back({link->directory, std::move(link->path)});
      }
      round.candidates.push_back(std::move(candidate));
    }
    if (cutOff_ && !mayFollow) {
      round.next = begin->key;
    }
    begin = end;
  }
  links_.clear();
  pathBytes_ = 0;
  return round;
}

}  // namespace kelvane::directoryCache
