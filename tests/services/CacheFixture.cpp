// SPDX-License-Identifier: Apache-2.0
// A temporary directory with files of given ages, and a volume that a test measures with it.
#include "tests/services/CacheFixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <system_error>
#include <utility>

#include "services/directory-cache/Survey.h"
#include "services/directory-cache/Tree.h"

namespace kelvane::directoryCache {

namespace {

std::string makeRoot() {
  std::string path = (std::filesystem::canonical(std::filesystem::temp_directory_path()) / "kelvane-XXXXXX").string();
  if (mkdtemp(path.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return path;
}

}  // namespace

std::uint64_t DirectoryMeter::freeBytes() {
  std::set<ino_t> seen;
  std::uint64_t used = 0;
  constexpr std::uint64_t statBlockBytes = 512;
  const auto count = [&](const struct stat& status) {
    if (S_ISREG(status.st_mode) && seen.insert(status.st_ino).second) {
      used += static_cast<std::uint64_t>(status.st_blocks) * statBlockBytes;
    }
  };
  struct stat status = {};
  for (const auto& entry : std::filesystem::recursive_directory_iterator(path_)) {
    if (lstat(entry.path().c_str(), &status) == 0) {
      count(status);
    }
  }
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    if (stat(entry.path().c_str(), &status) == 0 && status.st_nlink == 0) {
      count(status);
    }
  }
  constexpr std::int64_t capacity = std::int64_t{1} << 40;
  const std::int64_t available = capacity - static_cast<std::int64_t>(used);
  first_ = first_.value_or(available);
  const auto gained = static_cast<std::int64_t>(static_cast<double>(available - *first_) * yield_);
  return static_cast<std::uint64_t>(*first_ + gained);
}

std::uint64_t DirectoryMeter::settledFree(std::uint64_t, std::uint64_t) {
  ++settlings_;
  return freeBytes();
}

CacheTest::CacheTest() : root_(makeRoot()) {
  std::filesystem::create_directory(absolute("cache"));
}

CacheTest::~CacheTest() {
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

std::string CacheTest::absolute(const std::string& path) const {
  return root_ + "/" + path;
}

bool CacheTest::exists(const std::string& path) const {
  struct stat status = {};
  return lstat(absolute(path).c_str(), &status) == 0;
}

void CacheTest::makeFile(const std::string& path, std::int64_t age, std::uint64_t units) const {
  const std::string where = absolute(path);
  std::filesystem::create_directories(std::filesystem::path(where).parent_path());
  const Descriptor file(::open(where.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  ASSERT_TRUE(file.isValid()) << where;
  if (units != 0) {
    ASSERT_EQ(posix_fallocate(file.number(), 0, static_cast<off_t>(units * unit)), 0);
  }
  setTimes(path, age, age);
}

void CacheTest::setTimes(const std::string& path, std::int64_t readAge, std::int64_t writtenAge) const {
  const timespec times[] = {{testNow - readAge, 0}, {testNow - writtenAge, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, absolute(path).c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

DirectoryRules CacheTest::rules(const std::string& path) const {
  DirectoryRules rules;
  rules.path = absolute(path);
  rules.ages = {7 * day, day, hour, 0};
  // The others can't be set: they are those of the test's making.
  rules.clocks = {true, true, false, false};
  rules.minimumAges.fill(0);
  return rules;
}

PurgeResult CacheTest::purge(const std::vector<DirectoryRules>& directories, std::int32_t urgency, std::uint64_t amount,
                             const Cancellation& cancellation, CandidateBounds bounds) {
  const std::vector<OpenDirectory> open = openDirectoriesOn(root_, directories);
  DirectoryMeter meter(root_, yield_);
  const PurgeResult result = Purger(open, meter, bounds).purge({urgency, amount, testNow}, cancellation);
  settlings_ = meter.settlings();
  return result;
}

std::uint64_t CacheTest::purgeable(const std::vector<DirectoryRules>& directories, std::int32_t urgency,
                                   const Cancellation& cancellation) const {
  return purgeableBytes(openDirectoriesOn(root_, directories, LockUse::Look), urgency, testNow, cancellation);
}

}  // namespace kelvane::directoryCache
