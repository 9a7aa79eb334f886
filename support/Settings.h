// SPDX-License-Identifier: Apache-2.0
// What an administrator may set of the daemon's behaviour.
#pragma once

#include <atomic>
#include <cstdint>

namespace kelvane {

/// The settings of this process, at first the built-in ones. Any thread may read them.
struct Settings {
  /// "EndPassesEarly": a purge's pass in which nobody is in flight and nobody's turn is still to come does not wait
  /// until its time is up.
  std::atomic<bool> endPassesEarly = false;
  /// "PingLimit", up to an hour: a service whose ping is unanswered for so long is cut off, and its check-in goes on as
  /// if it had answered; 0 waits without limit.
  std::atomic<std::uint32_t> pingLimitSeconds = 0;
  /// "OwnedIdentifiers": the identifier of a service that has checked in is for its user alone until it is gone.
  std::atomic<bool> ownedIdentifiers = false;
  /// "StateWritesPerSecond", up to a million: how often each user but root may set state values; who does more often
  /// waits. 0 is no limit.
  std::atomic<std::uint32_t> stateWritesPerSecond = 0;
  /// "DropAbandoned": a purge or query is not begun when the client that asked for it has hung up.
  std::atomic<bool> dropAbandoned = false;
  /// "FairQueues": users whose purges, queries or check-ins wait take turns, and the daemon's own purges go before
  /// theirs.
  std::atomic<bool> fairQueues = false;
};

extern Settings settings;

/// Reads "/etc/kelvane/kelvaned.plist", a dictionary. What it does not set is as built in, and so is everything when it
/// cannot be read. A key that is not known and a value that is not understood are logged. Each setting changes once, so
/// it may be read again while others go by the settings.
void configureSettings();

}  // namespace kelvane
