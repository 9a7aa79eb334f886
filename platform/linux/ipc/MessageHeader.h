// SPDX-License-Identifier: Apache-2.0
// The header of a message, before the library has seen it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kelvane::ipc {

/// What every message begins with, before the fields of its header.
constexpr std::size_t messageHeaderBytes = 16;

/// The length of the message that these bytes begin with; none when they begin none. At least messageHeaderBytes of
/// them.
[[nodiscard]] std::optional<std::size_t> messageLength(std::span<const std::uint8_t> bytes);

/// Makes of a complete message that came with one descriptor one that came with none: its header counts none, and its
/// signature has a number where the descriptor is among the arguments. The library, which never closes the descriptors
/// of a message it drops, then need not be given any. False when the header counts none, or more than one, or has what
/// no sender has a use for.
[[nodiscard]] bool hideDescriptor(std::span<std::uint8_t> message);

}  // namespace kelvane::ipc
