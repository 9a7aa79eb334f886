// SPDX-License-Identifier: Apache-2.0
// How much space a volume really has.
#pragma once

#include <cstdint>
#include <string>

#include "services/directory-cache/Descriptor.h"

namespace kelvane::directoryCache {

/// Measures a volume, so that what a purge says it freed is what came of it.
class VolumeMeter {
 public:
  virtual ~VolumeMeter() = default;

  /// Bytes that are free at all, those kept for the superuser among them: where that reserve has been used, what is
  /// deleted fills it up first, and is nonetheless freed.
  virtual std::uint64_t freeBytes() = 0;
  /// As freeBytes(), after the file system has done what it put off when files were deleted. Waits until at least
  /// expected bytes are free: as long as more come free and half a second longer, and 1.5 s in all. While fewer than
  /// least are free it waits for all of that in any case, as a busy machine may come late to what was put off.
  virtual std::uint64_t settledFree(std::uint64_t expected, std::uint64_t least);

 protected:
  /// Whether deleted files' space comes free with the next commit only. Then what is free before that is not theirs,
  /// but what others deleted meanwhile.
  virtual bool freesWithCommits() = 0;
  /// Has the file system write what it keeps back, as far as it can be asked to.
  virtual void flush() = 0;
};

/// Measures the file system that is mounted at a path. When that may not be opened, it measures at a directory on
/// the volume, which differs only where directories have limits of their own.
class MountedVolumeMeter : public VolumeMeter {
 public:
  MountedVolumeMeter(const std::string& volume, const Descriptor& directory);

  std::uint64_t freeBytes() override;

 protected:
  bool freesWithCommits() override;
  void flush() override;

 private:
  Descriptor volume_;
};

}  // namespace kelvane::directoryCache
