// SPDX-License-Identifier: Apache-2.0
// The real daemon and a mounted volume.
#pragma once

#include <functional>
#include <string>
#include <variant>

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
  std::variant<Value, RequestFailure> purge(const Value& info) override;
  std::uint64_t available() override;

 private:
  const std::string volume_;
  const Interruption& interruption_;
  const std::function<void()> progress_;
  const KelvaneClient client_;
};

/// Tells the daemon that a purge is not wanted any more and waits a moment for its answer.
std::variant<Value, RequestFailure> sendCancel(const Value& token);

}  // namespace kelvane::ctl
