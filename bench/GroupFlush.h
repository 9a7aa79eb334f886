// SPDX-License-Identifier: Apache-2.0
// The least that makes changes durable for many who wait.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kelvane::bench {

/// Writes the same bytes over the start of a file, whose blocks have been written before, and flushes them to disk,
/// each time for all who wait.
class GroupFlush {
 public:
  /// Makes the file.
  GroupFlush(const std::string& path, std::size_t bytes);
  ~GroupFlush();
  GroupFlush(const GroupFlush&) = delete;
  GroupFlush& operator=(const GroupFlush&) = delete;

  /// Has so many threads wait for a flush that begins after they ask, again and again. Returns how many waits ended
  /// each second.
  double run(std::size_t waiters, std::uint64_t nanoseconds) const;

 private:
  void flush() const;

  const int file_;
  const std::vector<char> bytes_;
};

}  // namespace kelvane::bench
