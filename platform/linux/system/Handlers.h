// SPDX-License-Identifier: Apache-2.0
// The handlers that the process has registered for activities and event streams.
#pragma once

#include <functional>
#include <string>

#include "platform/Value.h"

/// An activity's handler has a serial queue of its own, so it runs once at a time, in the order of the calls; an
/// event stream's is called on the global queue and may handle several events at once. Any thread may call any
/// function.
namespace kelvane::handlers {

/// Called when the handler has returned, on the thread it ran on.
using Finished = std::function<void()>;

/// Calls the activity's handler with the run state; false, and nothing is called, when there is none.
[[nodiscard]] bool runActivity(const std::string& name, Finished finished);
/// Calls the stream's handler with the event; false, and nothing is called, when there is none.
[[nodiscard]] bool postEvent(const std::string& stream, const Value& event, Finished finished);
/// Whether anything has been registered.
[[nodiscard]] bool any();

}  // namespace kelvane::handlers
