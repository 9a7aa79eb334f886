// SPDX-License-Identifier: Apache-2.0
// Answers calls with what they brought: peer to peer, with a hop to another thread and back, or through a broker.
#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/BareServer.h"

namespace kelvane::bench {

namespace {

/// Answers with nothing when the caller wants nothing, else with the call's contents.
void answer(BareServer& server, sd_bus_message* call) {
  sd_bus_message* made = nullptr;
  must(sd_bus_message_new_method_return(call, &made), "an answer");
  if (std::string_view(sd_bus_message_get_member(call)) == "Echo") {
    must(sd_bus_message_copy(made, call, 1), "a copy");
  }
  server.send(made);
}

/// Takes each call to a worker thread and back, the least that a daemon does whose work may block. The worker only
/// looks at the pointer: messages belong to the loop's thread.
class Hop {
 public:
  explicit Hop(BareServer& server) : server_(server), wake_(mustCall(eventfd(0, EFD_NONBLOCK), "an eventfd")) {
    server_.watch(wake_, [this] { answerDone(); });
    std::thread([this] { work(); }).detach();
  }

  void take(sd_bus_message* call) {
    {
      const std::lock_guard lock(mutex_);
      calls_.push_back(sd_bus_message_ref(call));
    }
    came_.notify_one();
  }

 private:
  [[noreturn]] void work() {
    for (;;) {
      std::unique_lock lock(mutex_);
      came_.wait(lock, [this] { return !calls_.empty(); });
      sd_bus_message* const call = calls_.front();
      calls_.pop_front();
      done_.push_back(call);
      lock.unlock();
      const std::uint64_t one = 1;
      [[maybe_unused]] const ssize_t size = write(wake_, &one, sizeof one);
    }
  }

  void answerDone() {
    std::uint64_t ignored = 0;
    [[maybe_unused]] const ssize_t size = read(wake_, &ignored, sizeof ignored);
    std::vector<sd_bus_message*> done;
    {
      const std::lock_guard lock(mutex_);
      done.swap(done_);
    }
    for (sd_bus_message* call : done) {
      answer(server_, call);
      sd_bus_message_unref(call);
    }
  }

  BareServer& server_;
  const int wake_;
  std::mutex mutex_;
  // Guarded by mutex_:
  std::deque<sd_bus_message*> calls_;
  std::vector<sd_bus_message*> done_;
  std::condition_variable came_;
};

[[noreturn]] void serve(const std::string& manner, const std::string& path) {
  Hop* hop = nullptr;
  BareServer* self = nullptr;
  BareServer server([&](std::size_t, sd_bus_message* call) {
    if (hop != nullptr) {
      hop->take(call);
    } else {
      answer(*self, call);
    }
  });
  self = &server;
  if (manner == "hop") {
    hop = new Hop(server);
  }
  if (manner == "broker") {
    Bus bus = connectTo(path, true);
    must(sd_bus_request_name(bus.get(), brokeredName, 0), brokeredName);
    server.add(std::move(bus));
  } else {
    server.acceptFrom(listenAt(path));
  }
  // Whoever started this process waits for it.
  std::puts("ready");
  std::fflush(stdout);
  server.run();
}

}  // namespace

}  // namespace kelvane::bench

int main(int count, char** arguments) {
  const std::string_view manner = count == 3 ? arguments[1] : "";
  if (manner != "direct" && manner != "hop" && manner != "broker") {
    std::fprintf(stderr, "Usage: bench-echo direct|hop|broker SOCKET\n");
    return 2;
  }
  kelvane::bench::serve(arguments[1], arguments[2]);
}
