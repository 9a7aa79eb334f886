// SPDX-License-Identifier: Apache-2.0
// Events that tell of volumes that run low on space.
#include "platform/linux/volumes/LowDiskEvents.h"

#include <utility>

#include "platform/Queues.h"

namespace kelvane {

namespace {

constexpr std::uint64_t lowFlag = 0x4;
constexpr std::uint64_t veryLowFlag = 0x200;
thread_local LowDiskEvents::Run current = ReliefPolicy::noRun;

}  // namespace

LowDiskEvents::Handler LowDiskEvents::attend(Handler handler) {
  const runtime::Lock lock(mutex_);
  handler_ = handler;
  return [this, handler = std::move(handler)](const Value& event) { handle(begin_(), handler, event); };
}

bool LowDiskEvents::haveHandler() {
  const runtime::Lock lock(mutex_);
  return handler_ != nullptr;
}

void LowDiskEvents::post(const ReliefPolicy::Event& event) {
  const std::uint64_t flags = event.level == SpaceLevel::VeryLow ? veryLowFlag : lowFlag;
  const runtime::Lock lock(mutex_);
  globalQueue::async([this, run = event.run, flags, handler = handler_] {
    handle(run, handler, Value::Dictionary{{"_Flags", flags}});
  });
}

LowDiskEvents::Run LowDiskEvents::currentRun() {
  return current;
}

void LowDiskEvents::handle(Run run, const Handler& handler, const Value& event) const {
  current = run;
  handler(event);
  current = ReliefPolicy::noRun;
  end_(run);
}

}  // namespace kelvane
