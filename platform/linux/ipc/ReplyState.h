// SPDX-License-Identifier: Apache-2.0
// The answer that one delivered request waits for.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "platform/Ipc.h"

namespace kelvane::ipc {

class Channel;

/// Passes the first answer, or that there will be none, to the request's channel. Any thread.
struct Reply::State {
 public:
  State(std::shared_ptr<Channel> channel, std::uint64_t request) : channel_(std::move(channel)), request_(request) {}
  ~State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void send(const Value& value);
  void sendError(const std::string& name, const std::string& text);

 private:
  const std::shared_ptr<Channel> channel_;
  const std::uint64_t request_;
  std::atomic<bool> isAnswered_ = false;
};

}  // namespace kelvane::ipc
