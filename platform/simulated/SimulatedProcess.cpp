// SPDX-License-Identifier: Apache-2.0
// The process and its service manager, in memory.
#include "platform/simulated/SimulatedProcess.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

#include "platform/simulated/SimulatedCalls.h"

namespace kelvane {

namespace simulated {

/// The process's own side of it.
struct ProcessCalls {
  static void beginTransaction(Process& process) {
    process.transactionsHighWater_ = std::max(process.transactionsHighWater_, ++process.transactions_);
  }
  static void endTransaction(Process& process) { --process.transactions_; }
  static void remark(Process& process, const std::string& remark) { process.remark_ = remark; }

  static void registerActivity(Process& process, const std::string& name,
                               std::function<void(const Activity&)> handler) {
    process.activities_[name] = handler;
    globalQueue::async([name, handler = std::move(handler)] { handler({name, ActivityState::CheckIn}); });
  }

  static void setEventStreamHandler(Process& process, const std::string& stream,
                                    std::function<void(const Value&)> handler) {
    process.streams_.insert_or_assign(stream, std::move(handler));
  }

  static int postNotification(Process& process, const std::string& name) {
    if (process.notificationStatus_ != 0) {
      errno = process.notificationError_;
      return process.notificationStatus_;
    }
    process.notifications_.push_back(name);
    return 0;
  }

  static void installTerminationHandler(Process& process, void (*handler)(int)) {
    process.terminationHandler_ = handler;
  }

  static void setReloadHandler(Process& process, std::function<void()> handler) {
    process.reloadHandler_ = std::move(handler);
  }

  [[noreturn]] static void exit(Process& process, int status) {
    if (!process.exitStatus_) {
      process.exitStatus_ = status;
    }
    Scheduler& runner = scheduler();
    runner.wakeAll(process.terminated_);
    WaitList never;
    for (;;) {
      runner.wait(never, "nothing, after its exit", {});
    }
  }

  static void supervise(Process& process, const SerialQueue& queue) {
    process.supervisedQueues_.push_back(queue.label());
  }
};

void Process::runActivity(const std::string& name) {
  const auto found = activities_.find(name);
  if (found == activities_.end()) {
    fail("no activity " + name);
  }
  const Semaphore returned(0);
  globalQueue::async([&, handler = found->second] {
    handler({name, ActivityState::Run});
    returned.signal();
  });
  returned.wait();
}

void Process::post(const std::string& name, const Value& event) {
  globalQueue::async([handler = handlerOf(name), event] { handler(event); });
}

void Process::postAndWait(const std::string& name, const Value& event) {
  const Group group;
  group.asyncGlobal([handler = handlerOf(name), event] { handler(event); });
  group.wait();
}

void Process::setNotificationFailure(int status, int error) {
  notificationStatus_ = status;
  notificationError_ = error;
}

void Process::terminate() {
  if (terminationHandler_ == nullptr) {
    fail("no termination handler");
  }
  bool returned = false;
  scheduler().start("SIGTERM", [this, &returned] {
    terminationHandler_(SIGTERM);
    returned = true;
    scheduler().wakeAll(terminated_);
  });
  while (!returned && !exitStatus_) {
    scheduler().wait(terminated_, "the termination handler", {});
  }
}

void Process::reload() {
  if (!reloadHandler_) {
    fail("no reload handler");
  }
  const Semaphore returned(0);
  globalQueue::async([&] {
    reloadHandler_();
    returned.signal();
  });
  returned.wait();
}

void Process::restart() {
  transactions_ = 0;
  remark_.clear();
  activities_.clear();
  streams_.clear();
  terminationHandler_ = nullptr;
  reloadHandler_ = nullptr;
  exitStatus_.reset();
  supervisedQueues_.clear();
}

const Process::EventHandler& Process::handlerOf(const std::string& name) const {
  const auto found = streams_.find(name);
  if (found == streams_.end()) {
    fail("no event stream " + name);
  }
  return found->second;
}

}  // namespace simulated

using simulated::ProcessCalls;

Transaction::Transaction() {
  ProcessCalls::beginTransaction(simulated::world().process);
}

Transaction::~Transaction() {
  if (simulated::World* world = simulated::worldIfAny()) {
    ProcessCalls::endTransaction(world->process);
  }
}

void remarkInStatus(const std::string& remark) {
  ProcessCalls::remark(simulated::world().process, remark);
}

void registerActivity(const std::string& name, std::function<void(const Activity&)> handler) {
  ProcessCalls::registerActivity(simulated::world().process, name, std::move(handler));
}

void setEventStreamHandler(const std::string& stream, std::function<void(const Value&)> handler) {
  ProcessCalls::setEventStreamHandler(simulated::world().process, stream, std::move(handler));
}

int postNotification(const std::string& name) {
  return ProcessCalls::postNotification(simulated::world().process, name);
}

void installTerminationHandler(void (*handler)(int signal)) {
  ProcessCalls::installTerminationHandler(simulated::world().process, handler);
}

void setReloadHandler(std::function<void()> handler) {
  ProcessCalls::setReloadHandler(simulated::world().process, std::move(handler));
}

void holdStandardDescriptors() {}
void outliveFileSizeLimit() {}

void exitImmediately(int status) {
  ProcessCalls::exit(simulated::world().process, status);
}

void superviseQueue(const SerialQueue& queue) {
  ProcessCalls::supervise(simulated::world().process, queue);
}

std::string randomUuid() {
  simulated::Random& random = simulated::world().identifiers;
  std::array<std::uint8_t, 16> bytes = {};
  for (std::uint8_t& byte : bytes) {
    byte = static_cast<std::uint8_t>(random.next());
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0FU) | 0x40U);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3FU) | 0x80U);
  std::string text;
  for (std::size_t index = 0; index < bytes.size(); ++index) {
    if (index == 4 || index == 6 || index == 8 || index == 10) {
      text += '-';
    }
    text += "0123456789abcdef"[bytes[index] >> 4U];
    text += "0123456789abcdef"[bytes[index] & 15U];
  }
  return text;
}

}  // namespace kelvane
