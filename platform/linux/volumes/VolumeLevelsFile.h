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

  /// What it says. One that cannot be used is logged, once until it changes, and gives the defaults, as a missing one
  /// does.
  [[nodiscard]] VolumeLevels levels() const;

 private:
  using Contents = std::variant<Data, files::Error>;
  /// What is wrong with the file, if anything is, and what applies then.
  struct Meaning {
    VolumeLevels levels;
    std::string problem;
  };
  class Known;

  explicit VolumeLevelsFile(std::variant<Contents, Meaning> found) : found_(std::move(found)) {}
  [[nodiscard]] static Known& known();
  [[nodiscard]] static Meaning meaningOf(const Contents& contents);

  std::variant<Contents, Meaning> found_;
  /// Of a file whose contents were read.
  std::optional<struct stat> status_;
};

}  // namespace kelvane
