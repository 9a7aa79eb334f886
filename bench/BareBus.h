// SPDX-License-Identifier: Apache-2.0
// The bus library with nothing round it: what any program that speaks D-Bus pays at least.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

namespace kelvane::bench {

struct BusCloser {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
struct MessageFreer {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusCloser>;
using Message = std::unique_ptr<sd_bus_message, MessageFreer>;

/// A measurement that fails is worth nothing: prints what failed and ends the process. Results below 0 are errors
/// of the bus library.
void must(int result, const char* what);
/// As must(), for system calls, which leave the error in errno; returns the result.
int mustCall(int result, const char* what);

std::uint64_t nanosecondsNow();

/// What the processes of a measurement are called by.
inline constexpr char daemonPath[] = "/com/tessaly/Kelvane";
inline constexpr char daemonInterface[] = "com.tessaly.KelvaneClientProtocol";
inline constexpr char servicePath[] = "/com/tessaly/KelvaneService";
inline constexpr char serviceInterface[] = "com.tessaly.KelvaneServiceProtocol";
inline constexpr char brokeredName[] = "com.tessaly.kelvane.echo";

/// Connects to the peer, or the broker, that listens at the path. Waits for the end of the handshake.
Bus connectTo(const std::string& path, bool isBroker = false);

/// The D-Bus server at one end of a connected socket, which it owns.
Bus serveOn(int socket);

/// A socket that listens at the path, in the place of whatever was there.
int listenAt(const std::string& path);

/// Lets this process have as many descriptors as it may.
void raiseDescriptorLimit();

}  // namespace kelvane::bench
