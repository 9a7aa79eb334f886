// SPDX-License-Identifier: Apache-2.0
// The files that may go, oldest first, in bounded memory.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "services/directory-cache/Tree.h"

namespace kelvane::directoryCache {

/// One name of a file, as a walk found it.
struct FoundLink {
  FileKey key;
  /// Index of the directory that it is in.
  std::size_t directory;
  /// Relative to the directory.
  std::string path;
  std::uint64_t allocated;
  /// How many names the file has, wherever they are.
  nlink_t links;
  /// When anything about the file last changed.
  FileTime changed = {};
};

/// A file all of whose names were found, so that its space comes back when they all go.
struct Candidate {
  FileKey key;
  std::uint64_t allocated;
  struct Link {
    std::size_t directory;
    std::string path;
  };
  std::vector<Link> links;
  FileTime changed = {};
};

struct CandidateBounds {
  std::size_t links;
  std::size_t pathBytes;
};

/// Keeps the oldest of the names that it is offered, as many as its bounds allow. What did not fit comes in a
/// next round: take() tells where that has to begin.
class Candidates {
 public:
  /// Takes only what is younger than after.
  Candidates(CandidateBounds bounds, std::optional<FileKey> after) : bounds_(bounds), after_(after) {}

  void offer(FoundLink link);

  struct Round {
    /// Oldest first.
    std::vector<Candidate> candidates;
    /// The last key that was considered, when there may be younger ones that did not fit.
    std::optional<FileKey> next;
  };
  /// Gives what was kept and leaves nothing.
  Round take();

 private:
  const CandidateBounds bounds_;
  const std::optional<FileKey> after_;
  /// A heap whose front is the youngest.
  std::vector<FoundLink> links_;
  std::size_t pathBytes_ = 0;
  /// The oldest that did not fit: nothing younger is taken any more, or it would be passed over for good.
  std::optional<FileKey> cutOff_;
};

}  // namespace kelvane::directoryCache
