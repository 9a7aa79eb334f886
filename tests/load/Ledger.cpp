// SPDX-License-Identifier: Apache-2.0
// What all services together have freed.
#include "tests/load/Ledger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::test {

Ledger::Ledger(const std::string& path) {
  const FileDescriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  EXPECT_EQ(ftruncate(file.get(), sizeof(Entries)), 0) << path;
  void* const memory = mmap(nullptr, sizeof(Entries), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  EXPECT_NE(memory, MAP_FAILED);
  // All zero at first, which is what these begin with.
  entries_ = static_cast<Entries*>(memory);
}

Ledger::~Ledger() {
  munmap(entries_, sizeof(Entries));
}

std::uint64_t Ledger::atLeastFreed() const {
  std::uint64_t sum = 0;
  for (const Entry& one : *entries_) {
    sum += one.ended;
  }
  return sum;
}

std::uint64_t Ledger::atMostFreed() const {
  std::uint64_t sum = 0;
  for (const Entry& one : *entries_) {
    sum += one.begun;
  }
  return sum;
}

}  // namespace kelvane::test
