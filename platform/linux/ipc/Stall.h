// SPDX-License-Identifier: Apache-2.0
// How long a peer has taken nothing off its socket.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kelvane::ipc {

/// Decides, from looks at a socket now and then, when its peer has taken nothing of what is there for it for too long.
/// Knows neither socket nor clock. Owned by a channel while something waits to be sent.
class Stall {
 public:
  using Time = std::chrono::steady_clock::time_point;

  struct Look {
    /// Grows whenever the socket takes something.
    std::uint64_t moves = 0;
    /// Bytes in the socket that the peer has not taken, which the kernel counts by the packet: a peer that takes less
    /// than one, up to 32 KiB, is seen to have taken nothing.
    std::size_t untaken = 0;
    friend bool operator==(const Look&, const Look&) = default;
  };

  /// From now on.
  Stall(std::chrono::seconds most, Time now, const Look& look) : most_(most), since_(now), last_(look) {}

  /// Whether that is over. Who has taken everything is not waited for.
  [[nodiscard]] bool isTooLong(Time now, const Look& look);

 private:
  const std::chrono::seconds most_;
  Time since_;
  Look last_;
};

}  // namespace kelvane::ipc
