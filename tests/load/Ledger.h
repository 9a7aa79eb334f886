// SPDX-License-Identifier: Apache-2.0
// What all services together have freed.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kelvane::test {

/// Bytes freed on the test's volume by each of several services, in memory that their processes share. Each account
/// has one writer at a time; any thread reads.
class Ledger {
 public:
  static constexpr std::size_t accounts = 64;

  /// In a file, which is made if it is not there.
  explicit Ledger(const std::string& path);
  ~Ledger();
  Ledger(const Ledger&) = delete;
  Ledger& operator=(const Ledger&) = delete;

  void beginFreeing(std::size_t account, std::uint64_t bytes) { entry(account).begun += bytes; }
  void endFreeing(std::size_t account, std::uint64_t bytes) { entry(account).ended += bytes; }
  /// Of a service that has died, perhaps between the two.
  void settle(std::size_t account) { entry(account).ended = entry(account).begun.load(); }

  // What had been freed at some time, between two bounds: at least so much before a first call, at most so much before
  // a second one.
  [[nodiscard]] std::uint64_t atLeastFreed() const;
  [[nodiscard]] std::uint64_t atMostFreed() const;

 private:
  struct Entry {
    std::atomic<std::uint64_t> begun;
    std::atomic<std::uint64_t> ended;
  };
  using Entries = std::array<Entry, accounts>;

  Entry& entry(std::size_t account) const { return entries_->at(account); }

  Entries* entries_ = nullptr;
};

}  // namespace kelvane::test
