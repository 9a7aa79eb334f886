// SPDX-License-Identifier: Apache-2.0
// What a hanging volume is told, line by line.
#pragma once

#include <optional>
#include <set>
#include <sstream>
#include <string>

#include "tests/hanging-volume/HangingFileSystem.h"

namespace kelvane::test {

inline constexpr char commandHelp[] = R"(Usage: hanging_volume DIRECTORY

Mounts a file system on DIRECTORY that is a disk's to everybody else, and takes commands from standard input, a line
each. Each is answered by a line, "ok" or "error: ...", and so is the mounting.

  size BYTES                what statfs tells: by default 1 GiB,
  free BYTES                half of that free
  file NAME [CONTENTS]      a file in its root directory; CONTENTS are the rest of the line
  directory NAME            an empty one, likewise
  hang OPERATION...         holds requests of these kinds from now on
  fail OPERATION ERRNO      answers them with an error
  resume OPERATION...       answers what is held, and what comes, of these kinds
  held OPERATION            how many are held: "ok NUMBER"
  received OPERATION        how many have come since the beginning: "ok NUMBER"
  await OPERATION           is answered once one is held; what is held already counts

An OPERATION is one of FUSE's in small letters, such as statfs, getattr, lookup, open or opendir; or "all" of them, but
for interrupt, which tells that somebody who waits was sent a signal. Whoever asks can't be killed while its request is
held. At the end of input, whoever still waits gets an error and the file system is unmounted.
)";

/// Carries them out and says how that went. One thread uses it, the file system's.
class Commands {
 public:
  explicit Commands(HangingFileSystem& files) : files_(files) {}

  /// The line that answers, or nothing when that has to wait for a request.
  [[nodiscard]] std::optional<std::string> run(const std::string& line);
  /// The answer that had to wait, once a request has come. Until then there should be no other command.
  [[nodiscard]] std::optional<std::string> late();
  [[nodiscard]] bool isLate() const { return !awaited_.empty(); }

 private:
  using Operations = std::set<HangingFileSystem::Operation>;

  /// False if the words are not as they should be.
  [[nodiscard]] bool change(const std::string& name, std::istringstream& words);
  [[nodiscard]] std::string count(const std::string& name, const Operations& operations) const;

  HangingFileSystem& files_;
  Operations awaited_;
};

}  // namespace kelvane::test
