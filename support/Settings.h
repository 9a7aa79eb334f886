// SPDX-License-Identifier: Apache-2.0
// What an administrator may set of the daemon's behaviour.
#pragma once

#include <atomic>

namespace kelvane {

/// The settings of this process, at first the built-in ones. Any thread may read them.
struct Settings {
  /// "EndPassesEarly": a purge's pass in which nobody is in flight and nobody's turn is still to come does not wait
  /// until its time is up.
  std::atomic<bool> endPassesEarly = false;
};

extern Settings settings;

/// Reads "/etc/kelvane/kelvaned.plist", a dictionary. What it does not set is as built in, and so is everything when it
/// cannot be read. A key that is not known and a value that is not understood are logged.
void configureSettings();

}  // namespace kelvane
