// SPDX-License-Identifier: Apache-2.0
// The interfaces that every D-Bus peer is expected to have.
#pragma once

#include <systemd/sd-bus.h>

#include <optional>
#include <variant>

#include "platform/IpcInterface.h"
#include "platform/linux/ipc/MessageCodec.h"

namespace kelvane::ipc {

/// The answer to a call of org.freedesktop.DBus (Hello, with which stock tools begin), of Peer, of Introspectable or
/// of Properties (there are none); none when the call is of another interface. The event loop's thread.
std::optional<std::variant<OutgoingMessage, CallFault>> answerStandardCall(sd_bus_message* call,
                                                                           const Interface& interface);

}  // namespace kelvane::ipc
