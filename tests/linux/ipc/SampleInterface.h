// SPDX-License-Identifier: Apache-2.0
// The interface that the tests of the IPC facility serve and call.
#pragma once

#include <array>

#include "platform/IpcInterface.h"

namespace kelvane::test {

/// An interface with one operation of each form.
namespace sample {

inline constexpr std::array<ipc::Argument, 1> valueArgument = {{{"value", ipc::ArgumentKind::Any}}};
inline constexpr std::array<ipc::Argument, 1> infoArgument = {{{"info", ipc::ArgumentKind::Dictionary}}};
inline constexpr std::array<ipc::Argument, 3> attachArguments = {{{"name", ipc::ArgumentKind::String},
                                                                  {"endpoint", ipc::ArgumentKind::Endpoint},
                                                                  {"info", ipc::ArgumentKind::Dictionary}}};
inline constexpr std::array<ipc::Argument, 2> workArguments = {
    {{"urgency", ipc::ArgumentKind::Integer}, {"info", ipc::ArgumentKind::Dictionary}}};

inline constexpr ipc::Operation echo = {"echo:reply:", "echo", valueArgument, ipc::ReplyKind::Any};
inline constexpr ipc::Operation tell = {"tell:", "tell", infoArgument, ipc::ReplyKind::Nothing,
                                        ipc::BeyondLimit::Waits};
inline constexpr ipc::Operation attach = {"attach:endpoint:info:reply:", "attach", attachArguments,
                                          ipc::ReplyKind::Any};
inline constexpr ipc::Operation work = {"work:info:reply:", "work", workArguments, ipc::ReplyKind::Any};
inline constexpr ipc::Operation ping = {"ping:", "ping", {}, ipc::ReplyKind::Nothing};

inline constexpr std::array operations = {&echo, &tell, &attach, &work, &ping};
inline constexpr ipc::Interface interface = {"/com/example/Sample", "com.example.Sample", operations};
/// As a caller that limits what it takes from the other end.
inline constexpr ipc::Interface limitedInterface = {.objectPath = "/com/example/Sample",
                                                    .name = "com.example.Sample",
                                                    .operations = operations,
                                                    .maximumOutstandingCalls = 4,
                                                    .maximumReplyBytes = 4096,
                                                    .maximumWaitingCalls = 8,
                                                    .maximumWaitingBytes = 4 * 1024 * 1024,
                                                    .maximumStall = std::chrono::minutes(5)};

}  // namespace sample

}  // namespace kelvane::test
