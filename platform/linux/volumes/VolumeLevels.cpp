// SPDX-License-Identifier: Apache-2.0
// When a volume counts as low on space.
#include "platform/linux/volumes/VolumeLevels.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <mutex>
#include <optional>

#include "platform/Files.h"
#include "platform/Limits.h"
#include "platform/PropertyList.h"
#include "platform/Reporting.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/runtime/Mutex.h"
#include "platform/linux/volumes/PathWalk.h"
#include "platform/linux/volumes/Paths.h"

namespace kelvane {

namespace {

double percentOr(const Value& value, double otherwise) {
  const double percent = value.doubleValue();
  return value.isNumber() && percent >= 0 && percent <= 100 ? percent : otherwise;
}

std::uint64_t bytesOr(const Value& value, std::uint64_t otherwise) {
  return value.isNumber() && !(value.doubleValue() < 0) && !std::isnan(value.doubleValue()) ? value.uint64Value()
                                                                                            : otherwise;
}

/// The text format knows no truth values.
bool truthOr(const Value& value, bool otherwise) {
  if (value.isString()) {
    return *value.string() == "NO" ? false : *value.string() == "YES" || otherwise;
  }
  return value.isBoolean() ? value.boolValue() : otherwise;
}

volumes::Relief reliefFrom(const Value& entries, const volumes::Relief& otherwise) {
  volumes::Relief relief = otherwise;
  const Value& bytes = entries["ReliefBytes"];
  if (bytes.isNumber() && bytes.doubleValue() >= 1) {
    relief.amountBytes = bytes.uint64Value();
  }
  const Value& urgency = entries["ReliefUrgencyLimit"];
  if (urgency.isNumber() && urgency.doubleValue() >= 1 && urgency.doubleValue() < 5) {
    relief.urgencyLimit = static_cast<std::int32_t>(urgency.doubleValue());
  }
  return relief;
}

VolumeLevels::Bounds boundsFrom(const Value& entries, const VolumeLevels::Bounds& otherwise) {
  return {.lowPercent = percentOr(entries["LowPercent"], otherwise.lowPercent),
          .lowBytes = bytesOr(entries["LowBytes"], otherwise.lowBytes),
          .veryLowPercent = percentOr(entries["VeryLowPercent"], otherwise.veryLowPercent),
          .veryLowBytes = bytesOr(entries["VeryLowBytes"], otherwise.veryLowBytes),
          .isRelieved = truthOr(entries["Relief"], otherwise.isRelieved),
          .relief = reliefFrom(entries, otherwise.relief)};
}

/// A volume is below both bounds exactly when it is below the lesser one. Where a share is no whole number of
/// bytes, the next above it separates the same amounts.
std::uint64_t markOf(std::uint64_t size, double percent, std::uint64_t bytes) {
  const double share = std::ceil(static_cast<double>(size) * percent / 100);
  return share < static_cast<double>(bytes) ? static_cast<std::uint64_t>(share) : bytes;
}

/// What a file said last. Looking at a volume costs few wake-ups, and one more thread to read the same again would cost
/// as many.
class KnownLevels {
 public:
  std::optional<VolumeLevels> of(const struct stat& file) {
    const runtime::Lock lock(mutex_);
    return isKnown_ && isSame(file) ? std::optional(levels_) : std::nullopt;
  }
  void set(const struct stat& file, const VolumeLevels& levels) {
    const runtime::Lock lock(mutex_);
    isKnown_ = true;
    file_ = file;
    levels_ = levels;
  }

 private:
  bool isSame(const struct stat& file) const KELVANE_REQUIRES(mutex_) {
    return file.st_dev == file_.st_dev && file.st_ino == file_.st_ino && file.st_size == file_.st_size &&
           file.st_ctim.tv_sec == file_.st_ctim.tv_sec && file.st_ctim.tv_nsec == file_.st_ctim.tv_nsec;
  }

  runtime::Mutex mutex_;
  bool isKnown_ KELVANE_GUARDED_BY(mutex_) = false;
  struct stat file_ KELVANE_GUARDED_BY(mutex_) = {};
  VolumeLevels levels_ KELVANE_GUARDED_BY(mutex_);
};

/// Of the file itself. Its directory may be on any disk, too.
Result<struct stat> statusOfFile() {
  const std::string path = paths::volumeLevelsFile;
  return FileSystemProbe::shared().ask<struct stat>(
      "asking " + path,
      [path](FileSystemProbe::Visit & visit) -> Result<struct stat> {
        const std::size_t slash = path.rfind('/');
        const auto directory = walkTo(visit, path.substr(0, slash));
        if (!directory) {
          return directory.failure();
        }
        const FileDescriptor file(openat(directory->get(), path.c_str() + slash + 1, O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!file) {
          return systemFailure("opening", path);
        }
        struct stat status = {};
        const auto entered = enterFileSystemOf(visit, file, path);
        if (!entered || fstat(file.get(), &status) != 0) {
          return entered ? systemFailure("asking", path) : entered.failure();
        }
        return status;
      },
      FileSystemProbe::About::Files);
}

/// Logs an unusable configuration when it differs from what was logged last.
void reportProblem(const std::string& problem) {
  static std::mutex mutex;
  static std::string reported;
  {
    const std::lock_guard lock(mutex);
    if (problem == reported) {
      return;
    }
    reported = problem;
  }
  if (!problem.empty()) {
    reporting::reportFailure("VolumeLevels::current", problem + "; the defaults apply");
  }
}

}  // namespace

VolumeLevels::VolumeLevels(const Value& configuration) : general_(boundsFrom(configuration, Bounds{})) {
  if (const auto volumes = configuration["Volumes"].dictionary()) {
    for (const auto& [volume, entries] : *volumes) {
      single_.emplace(volume, boundsFrom(entries, general_));
    }
  }
}

VolumeLevels VolumeLevels::current() {
  static KnownLevels& known = *new KnownLevels;
  const auto status = statusOfFile();
  if (!status && status.failure().number == ENOENT) {
    reportProblem("");
    return {};
  }
  // A link may lead to any disk: it is followed by whoever reads the file.
  if (!status || !S_ISREG(status->st_mode)) {
    return read();
  }
  auto levels = known.of(*status);
  if (!levels) {
    levels = read();
    known.set(*status, *levels);
  }
  return *levels;
}

VolumeLevels VolumeLevels::read() {
  const std::string name = paths::volumeLevelsFile;
  const auto contents = files::read(name, limits::propertyListBytes);
  if (const auto* error = std::get_if<files::Error>(&contents)) {
    reportProblem(name + ": " + error->text);
    return {};
  }
  const propertyList::Result parsed = propertyList::parse(std::get<Data>(contents));
  if (const auto* error = std::get_if<propertyList::Error>(&parsed)) {
    reportProblem(name + ": " + error->text);
    return {};
  }
  const Value& configuration = std::get<Value>(parsed);
  reportProblem(configuration.isDictionary() ? "" : name + ": not a dictionary");
  return VolumeLevels(configuration);
}

std::set<std::string> VolumeLevels::volumes() const {
  std::set<std::string> names;
  for (const auto& [name, bounds] : single_) {
    names.insert(name);
  }
  return names;
}

const VolumeLevels::Bounds& VolumeLevels::of(const std::string& volume) const {
  const auto single = single_.find(volume);
  return single == single_.end() ? general_ : single->second;
}

volumes::Relief VolumeLevels::relief(const std::string& volume) const {
  return of(volume).relief;
}

SpaceMarks VolumeLevels::marks(const std::string& volume, std::uint64_t size) const {
  const Bounds& bounds = of(volume);
  if (size < smallestWatchedBytes || !bounds.isRelieved) {
    return {};
  }
  return {.low = markOf(size, bounds.lowPercent, bounds.lowBytes),
          .veryLow = markOf(size, bounds.veryLowPercent, bounds.veryLowBytes)};
}

}  // namespace kelvane
