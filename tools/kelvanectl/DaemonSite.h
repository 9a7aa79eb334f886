// SPDX-License-Identifier: Apache-2.0
// The real daemon and a mounted volume.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "support/KelvaneClient.h"
#include "tools/kelvanectl/Escalation.h"

namespace kelvane::ctl {

class Interruption;

/// Sends requests over one connection and watches the volume meanwhile. Lives on the main thread.
class DaemonSite : public PurgeSite {
 public:
  /// progress runs some times a second while a request is under way; it may be empty.
  DaemonSite(std::string volume, const Interruption& interruption, std::function<void()> progress);

  /// Ends early when the process is interrupted: then it has told the daemon to cancel.
  Outcome purge(const Value& info) override;
  /// Of the file system that answered first: what another one in its place has was not gained.
  std::optional<std::uint64_t> available() override;

 private:
  const std::string volume_;
  const Interruption& interruption_;
  const std::function<void()> progress_;
  const KelvaneClient client_;
  std::optional<std::uint64_t> fileSystem_;
};

/// Tells the daemon that a purge is not wanted any more and waits a moment for its answer.
Outcome sendCancel(const Value& token);

/// Has the daemon do its daily maintenance and waits until it has, or until the process is interrupted: the daemon
/// then goes on by itself.
Outcome runDaily(const Interruption& interruption);

}  // namespace kelvane::ctl
