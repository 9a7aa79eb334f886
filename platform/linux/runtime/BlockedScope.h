// SPDX-License-Identifier: Apache-2.0
// Tells the thread pool that the calling thread is about to wait.
#pragma once

namespace kelvane::runtime {

struct Worker;

/// While one lives, the calling pool thread counts as blocked, and another may run in its place. To be put
/// round every wait and every slow system call. Scopes nest; on threads outside the pool they do nothing.
/// The scope must end on the thread it began on, and no lock that work items take may be held at its start.
class BlockedScope {
 public:
  BlockedScope();
  ~BlockedScope();
  BlockedScope(const BlockedScope&) = delete;
  BlockedScope& operator=(const BlockedScope&) = delete;

 private:
  Worker* const worker_;
};

}  // namespace kelvane::runtime
