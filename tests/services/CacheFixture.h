// SPDX-License-Identifier: Apache-2.0
// A temporary directory with files of given ages, and a volume that a test measures with it.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "services/directory-cache/Configuration.h"
#include "services/directory-cache/Purger.h"
#include "services/directory-cache/VolumeMeter.h"

namespace kelvane::directoryCache {

/// What ages are counted from, in seconds since 1970; chosen, so that no test depends on the clock.
inline constexpr std::int64_t testNow = 2'000'000'000;
inline constexpr std::int64_t hour = 3600;
inline constexpr std::int64_t day = 24 * hour;
/// Divisible by every block size that file systems use.
inline constexpr std::uint64_t unit = 64 * 1024;

/// Takes the files beneath a directory for all that is on a volume, because on a real one others write and delete too.
/// A file that this process has open counts until it is closed.
class DirectoryMeter : public VolumeMeter {
 public:
  /// The yield is what is gained in truth when a byte goes: less than 1 on a file system that compresses, 0 where all
  /// blocks are shared with copies elsewhere.
  DirectoryMeter(std::string path, double yield) : path_(std::move(path)), yield_(yield) {}

  std::uint64_t freeBytes() override;
  std::uint64_t settledFree(std::uint64_t expected, std::uint64_t least) override;

  int settlings() const { return settlings_; }

 protected:
  bool freesWithCommits() override { return false; }
  void flush() override {}

 private:
  const std::string path_;
  const double yield_;
  std::optional<std::int64_t> first_;
  int settlings_ = 0;
};

/// Makes and removes a directory tree; each test has its own.
class CacheTest : public testing::Test {
 protected:
  CacheTest();
  ~CacheTest() override;

  /// A file of so many units whose last use was age seconds ago; makes the directories that it is in.
  void makeFile(const std::string& path, std::int64_t age, std::uint64_t units = 1) const;
  /// With times of its own, as seconds before now.
  void setTimes(const std::string& path, std::int64_t readAge, std::int64_t writtenAge) const;
  bool exists(const std::string& path) const;
  std::string absolute(const std::string& path) const;

  /// Rules by which a file must not have been used for a week, a day, an hour and no time at all.
  DirectoryRules rules(const std::string& path = "cache") const;

  PurgeResult purge(const std::vector<DirectoryRules>& directories, std::int32_t urgency, std::uint64_t amount,
                    const Cancellation& cancellation = {}, CandidateBounds bounds = {1000, 100'000});
  std::uint64_t purgeable(const std::vector<DirectoryRules>& directories, std::int32_t urgency,
                          const Cancellation& cancellation = {}) const;

  const std::string root_;
  /// Of the volume that purge() measures, and how often it had it settled.
  double yield_ = 1;
  int settlings_ = 0;
};

}  // namespace kelvane::directoryCache
