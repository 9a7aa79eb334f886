// SPDX-License-Identifier: Apache-2.0
// The interface that the daemon serves to clients and to services that check in.
#pragma once

#include <array>

#include "platform/IpcInterface.h"

namespace kelvane::KelvaneClientProtocol {

namespace arguments {
inline constexpr std::array checkin = {ipc::Argument{"identifier", ipc::ArgumentKind::String},
                                       ipc::Argument{"endpoint", ipc::ArgumentKind::Endpoint},
                                       ipc::Argument{"info", ipc::ArgumentKind::Dictionary}};
inline constexpr std::array info = {ipc::Argument{"info", ipc::ArgumentKind::Dictionary}};
inline constexpr std::array valueAndKey = {ipc::Argument{"value", ipc::ArgumentKind::Any},
                                           ipc::Argument{"key", ipc::ArgumentKind::String}};
inline constexpr std::array key = {ipc::Argument{"key", ipc::ArgumentKind::String}};
}  // namespace arguments

inline constexpr ipc::Operation clientCheckin = {"clientCheckin:endpoint:info:reply:", "clientCheckin",
                                                 arguments::checkin, ipc::ReplyKind::Any};
inline constexpr ipc::Operation clientPurgeableSpace = {"clientPurgeableSpace:replyBlock:", "clientPurgeableSpace",
                                                        arguments::info, ipc::ReplyKind::Any};
inline constexpr ipc::Operation clientItemizedPurgeableSpace = {
    "clientItemizedPurgeableSpace:replyBlock:", "clientItemizedPurgeableSpace", arguments::info, ipc::ReplyKind::Any};
inline constexpr ipc::Operation clientPurge = {"clientPurge:replyBlock:", "clientPurge", arguments::info,
                                               ipc::ReplyKind::Any};
inline constexpr ipc::Operation clientCancelPurge = {"clientCancelPurge:replyBlock:", "clientCancelPurge",
                                                     arguments::info, ipc::ReplyKind::Nothing};
inline constexpr ipc::Operation clientSetState = {"clientSetState:key:replyBlock:", "clientSetState",
                                                  arguments::valueAndKey, ipc::ReplyKind::Nothing};
inline constexpr ipc::Operation clientGetState = {"clientGetState:replyBlock:", "clientGetState", arguments::key,
                                                  ipc::ReplyKind::Any};

inline constexpr std::array operations = {&clientCheckin, &clientPurgeableSpace, &clientItemizedPurgeableSpace,
                                          &clientPurge,   &clientCancelPurge,    &clientSetState,
                                          &clientGetState};

inline constexpr ipc::Interface interface = {"/com/tessaly/Kelvane", "com.tessaly.KelvaneClientProtocol", operations};

}  // namespace kelvane::KelvaneClientProtocol
