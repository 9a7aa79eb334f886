// SPDX-License-Identifier: Apache-2.0
// The volumes as a test scripts them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/Volumes.h"

namespace kelvane::simulated {

/// The mounted volumes, in mount order. Functions that name a volume which is not there stop the process.
class Volumes {
 public:
  /// A usable, local volume that is not low on space; in the place of one of this name, if there is one.
  void add(const std::string& mountPoint, std::uint64_t availableBytes);
  void remove(const std::string& mountPoint);
  void setUsable(const std::string& mountPoint, bool usable) { volume(mountPoint).usable = usable; }
  void setLocal(const std::string& mountPoint, bool local) { volume(mountPoint).local = local; }
  void setLow(const std::string& mountPoint, bool low) { volume(mountPoint).low = low; }

  void setAvailable(const std::string& mountPoint, std::uint64_t bytes) { volume(mountPoint).available = bytes; }
  /// Frees bytes, as a service does that deletes; what lacks in the reserve takes the first of them.
  void give(const std::string& mountPoint, std::uint64_t bytes);
  /// Uses bytes; at most what is available.
  void take(const std::string& mountPoint, std::uint64_t bytes);
  /// What is free besides what is available.
  void setReserve(const std::string& mountPoint, std::uint64_t bytes) { volume(mountPoint).reserve = bytes; }
  /// What root has used of that.
  void setReserveUsed(const std::string& mountPoint, std::uint64_t bytes) { volume(mountPoint).reserveUsed = bytes; }
  void setRelief(const std::string& mountPoint, const volumes::Relief& relief) { volume(mountPoint).relief = relief; }
  /// A volume that is silent is usable no more, nor is its space known.
  void setSilent(const std::string& mountPoint, bool silent) { volume(mountPoint).silent = silent; }

  bool isUsable(const std::string& mountPoint) const;
  std::vector<std::string> local() const;
  std::vector<std::string> low() const;
  Result<volumes::Space> space(const std::string& mountPoint) const;
  volumes::Relief beginRelief(const std::string& mountPoint);
  /// The volumes whose relief has begun, in that order.
  const std::vector<std::string>& relieved() const { return relieved_; }

 private:
  struct Volume {
    std::string mountPoint;
    std::uint64_t available = 0;
    std::uint64_t fileSystem = 0;
    std::uint64_t reserve = 0;
    std::uint64_t reserveUsed = 0;
    bool silent = false;
    bool usable = true;
    bool local = true;
    bool low = false;
    volumes::Relief relief = {};
  };
  Volume& volume(const std::string& mountPoint);
  const Volume* find(const std::string& mountPoint) const;

  std::vector<Volume> volumes_;
  std::uint64_t lastFileSystem_ = 0;
  std::vector<std::string> relieved_;
};

}  // namespace kelvane::simulated
