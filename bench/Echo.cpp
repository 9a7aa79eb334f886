// SPDX-License-Identifier: Apache-2.0
// Answers calls, with what they brought for instance: peer to peer, with a hop to another thread and back, or through a
// broker.
#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/BareServer.h"

namespace kelvane::bench {

namespace {

/// What asks for an answer of a given length: this and the number of its entries.
constexpr std::string_view entriesMember = "entries";

/// As many entries as a query's answer has that knows of so many services.
void appendEntries(sd_bus_message* answer, int count) {
  must(sd_bus_message_open_container(answer, 'v', "a{sv}"), "an answer");
  must(sd_bus_message_open_container(answer, 'a', "{sv}"), "an answer");
  for (int number = 0; number < count; ++number) {
    const std::string key = "com.example.bench." + std::to_string(number);
    must(sd_bus_message_append(answer, "{sv}", key.c_str(), "t", std::uint64_t{65536}), "an answer");
  }
  must(sd_bus_message_close_container(answer), "an answer");
  must(sd_bus_message_close_container(answer), "an answer");
}

/// Answers with what the member asks for: the call's contents, entries, or else nothing.
void answer(BareServer& server, sd_bus_message* call) {
  sd_bus_message* made = nullptr;
  must(sd_bus_message_new_method_return(call, &made), "an answer");
  const std::string_view member = sd_bus_message_get_member(call);
  if (member == "Echo") {
    must(sd_bus_message_copy(made, call, 1), "a copy");
  } else if (member.starts_with(entriesMember)) {
    appendEntries(made, std::atoi(member.data() + entriesMember.size()));
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
