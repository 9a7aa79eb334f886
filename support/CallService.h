// SPDX-License-Identifier: Apache-2.0
// Reaching a service from its record.
#pragma once

#include <functional>
#include <memory>

#include "platform/Queues.h"
#include "support/KLService.h"
#include "support/KelvaneServiceProxy.h"

namespace kelvane {

/// Sends exactly one request through the proxy and calls the completion once its reply has arrived.
using WorkBlock = std::function<void(const KelvaneServiceProxy& proxy, Block completion)>;

/// Calls a service over its record's connection. Returns at once, never connects synchronously and runs no
/// block inline: the work block runs on the record's call queue, so that a service is sent what it is asked for
/// in order, and must not block. The error block runs when the connection fails
/// or is invalidated before the work completes, or the request is never sent, at most once and never after the
/// completion was called. A request that is no longer wanted when its turn comes is never sent; whether it is may be
/// asked on any thread, which must not wait for the answer.
void CallServiceAsync(const std::shared_ptr<KLService>& service, WorkBlock work, Block error,
                      ipc::Proxy::Wanted wanted = nullptr);

/// The same, for callers that wait for the answer themselves.
void CallService(const std::shared_ptr<KLService>& service, WorkBlock work, Block error);

}  // namespace kelvane
