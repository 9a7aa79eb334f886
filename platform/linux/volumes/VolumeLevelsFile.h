// SPDX-License-Identifier: Apache-2.0
// The file in which an administrator changes when volumes count as low on space.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "platform/Files.h"
#include "platform/Value.h"
#include "platform/linux/volumes/FileSystemProbe.h"
#include "platform/linux/volumes/VolumeLevels.h"

namespace kelvane {

/// The configuration file as a question to the probe found it; until then it is one that does not answer.
class VolumeLevelsFile {
 public:
  VolumeLevelsFile();
  /// At this moment; for the probe's workers, as a question about files. The file is read only when it has changed
  /// since it was read last: a look at volumes should not cost more than it must.
  [[nodiscard]] static VolumeLevelsFile find(FileSystemProbe::Visit& visit);

  /// What it says; the defaults where there is no such file, or one that is not understood; and what it said last while
  /// it cannot be read, as the disk does not answer or no descriptor is left, say. Logs what is wrong, once until that
  /// changes.
  [[nodiscard]] VolumeLevels levels() const;

 private:
  /// What applies, and what is wrong with the file, if anything is.
  struct Meaning {
    VolumeLevels levels;
    std::string problem;
  };
  class Known;
  /// The contents, why there are none, or what they are known to mean.
  using Found = std::variant<Data, files::Error, Meaning>;

  explicit VolumeLevelsFile(Found found) : found_(std::move(found)) {}
  [[nodiscard]] static Known& known();
  [[nodiscard]] static Meaning meaningOf(const Data& contents);
  [[nodiscard]] static Meaning meaningWithout(const files::Error& error);

  Found found_;
  /// Of a file whose contents were read.
  std::optional<struct stat> status_;
};

}  // namespace kelvane
