// SPDX-License-Identifier: Apache-2.0
// The preferences suites as a test scripts them.
#pragma once

#include <cerrno>
#include <cstddef>
#include <limits>
#include <map>
#include <memory>
#include <string>

#include "platform/Value.h"

namespace kelvane::simulated {

/// Every suite, as it is in memory and on disk. A later run of the same simulation begins with what is on
/// disk.
class Preferences {
 public:
  struct Store {
    Value::Dictionary memory;
    Value::Dictionary disk;
    /// What outlives a process that is killed.
    Value::Dictionary handedOver;
  };

  /// False makes every later opening give none.
  void setOpenable(bool openable) { openingError_ = openable ? 0 : EIO; }
  /// Opening fails with this error, or with 0 does not.
  void setOpeningError(int error) { openingError_ = error; }
  int openingError() const { return openingError_; }
  /// Makes every write fail until it is called with false.
  void setFailing(bool failing) { failing_ = failing; }
  bool failing() const { return failing_; }
  /// What the disk has room for, in bytes of one suite's contents.
  void setRoom(std::size_t bytes) { room_ = bytes; }
  std::size_t room() const { return room_; }

  /// Puts a value in memory and on disk, as if an earlier process had.
  void set(const std::string& suite, const std::string& key, const Value& value);
  /// The values that readers see, and those that a crash would leave.
  Value contents(const std::string& suite) const;
  Value onDisk(const std::string& suite) const;
  /// How often a suite was opened, and how often one was written with success.
  int openings() const { return openings_; }
  int writes() const { return writes_; }
  /// What was handed over last, and how often that was asked for.
  Value handedOver(const std::string& suite) const;
  int handOvers() const { return handOvers_; }

  std::shared_ptr<Store> open(const std::string& suite);
  void countWrite() { ++writes_; }
  void countHandOver() { ++handOvers_; }
  void loseMemory();

 private:
  std::shared_ptr<Store> store(const std::string& suite);

  int openingError_ = 0;
  bool failing_ = false;
  std::size_t room_ = std::numeric_limits<std::size_t>::max();
  int openings_ = 0;
  int writes_ = 0;
  int handOvers_ = 0;
  std::map<std::string, std::shared_ptr<Store>> stores_;
};

}  // namespace kelvane::simulated
