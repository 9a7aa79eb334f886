// SPDX-License-Identifier: Apache-2.0
// The interface that every service serves and the daemon calls.
#pragma once

#include <array>

#include "platform/IpcInterface.h"
#include "platform/Limits.h"

namespace kelvane::KelvaneServiceProtocol {

namespace arguments {
/// Urgency is from 1 (mildest) to 4.
inline constexpr std::array urgencyAndInfo = {ipc::Argument{"urgency", ipc::ArgumentKind::Integer},
                                              ipc::Argument{"info", ipc::ArgumentKind::Dictionary}};
/// One entry: the notification's name and its value.
inline constexpr std::array notification = {ipc::Argument{"notification", ipc::ArgumentKind::Dictionary}};
inline constexpr std::array info = {ipc::Argument{"info", ipc::ArgumentKind::Dictionary}};
}  // namespace arguments

inline constexpr ipc::Operation servicePurgeable = {"servicePurgeable:info:replyBlock:", "servicePurgeable",
                                                    arguments::urgencyAndInfo, ipc::ReplyKind::Any};
inline constexpr ipc::Operation servicePurge = {"servicePurge:info:replyBlock:", "servicePurge",
                                                arguments::urgencyAndInfo, ipc::ReplyKind::Any};
inline constexpr ipc::Operation servicePeriodic = {"servicePeriodic:info:replyBlock:", "servicePeriodic",
                                                   arguments::urgencyAndInfo, ipc::ReplyKind::Any};
inline constexpr ipc::Operation serviceCancelPurge = {
    "serviceCancelPurge:", "serviceCancelPurge", {}, ipc::ReplyKind::Nothing};
inline constexpr ipc::Operation servicePing = {"servicePing:", "servicePing", {}, ipc::ReplyKind::Nothing};
inline constexpr ipc::Operation serviceNotify = {"serviceNotify:replyBlock:", "serviceNotify", arguments::notification,
                                                 ipc::ReplyKind::Nothing, ipc::BeyondLimit::Waits};
/// Part of the interface, never called by the daemon.
inline constexpr ipc::Operation serviceCallback = {"serviceCallback:replyBlock:", "serviceCallback", arguments::info,
                                                   ipc::ReplyKind::Any};

inline constexpr std::array operations = {&servicePurgeable, &servicePurge,  &servicePeriodic, &serviceCancelPurge,
                                          &servicePing,      &serviceNotify, &serviceCallback};

inline constexpr ipc::Interface interface = {.objectPath = "/com/tessaly/KelvaneService",
                                             .name = "com.tessaly.KelvaneServiceProtocol",
                                             .operations = operations,
                                             .maximumOutstandingCalls = limits::outstandingCallsPerService,
                                             .maximumReplyBytes = limits::serviceReplyBytes,
                                             .maximumWaitingCalls = limits::waitingCallsPerService,
                                             .maximumWaitingBytes = limits::waitingBytesPerService,
                                             .maximumStall = limits::serviceStall};

}  // namespace kelvane::KelvaneServiceProtocol
