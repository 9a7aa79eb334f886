// SPDX-License-Identifier: Apache-2.0
// Answers to requests.
#include "platform/common/FrozenValue.h"
#include "platform/linux/ipc/Channel.h"
#include "platform/linux/ipc/ReplyState.h"

namespace kelvane::ipc {

Reply::State::~State() {
  if (!isAnswered_) {
    Hub::shared().loop.post([channel = channel_, request = request_] { channel->requests()->replyDropped(request); });
  }
}

void Reply::State::send(const Value& value) {
  if (!isAnswered_.exchange(true)) {
    Hub::shared().loop.post([channel = channel_, request = request_, value = frozen(value)] {
      channel->requests()->reply(request, value);
    });
  }
}

void Reply::State::sendError(const std::string& name, const std::string& text) {
  if (!isAnswered_.exchange(true)) {
    Hub::shared().loop.post([channel = channel_, request = request_, fault = CallFault{name, text}] {
      channel->requests()->replyWithError(request, fault);
    });
  }
}

void Reply::send(const Value& value) const {
  state_->send(value);
}

void Reply::sendError(const std::string& name, const std::string& text) const {
  state_->sendError(name, text);
}

}  // namespace kelvane::ipc
