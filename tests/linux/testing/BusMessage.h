// SPDX-License-Identifier: Apache-2.0
// A D-Bus message that a test holds.
#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <memory>

namespace kelvane::test {

struct UnrefMessage {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
/// Goes before the connection that it came on.
using Message = std::unique_ptr<sd_bus_message, UnrefMessage>;

/// Appends a message's arguments; negative when that fails.
using Append = std::function<int(sd_bus_message*)>;

inline int nothing(sd_bus_message*) {
  return 0;
}

}  // namespace kelvane::test
