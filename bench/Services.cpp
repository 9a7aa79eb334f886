// SPDX-License-Identifier: Apache-2.0
// Many services in one process, each with a file that it shortens when it is told to free space.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <deque>
#include <string_view>

#include "bench/BareServer.h"

namespace kelvane::bench {

namespace {

constexpr std::uint64_t pageBytes = 4096;
/// What each says it could free.
constexpr std::uint64_t purgeableBytes = 65536;
/// The daemon reads no further while more are unanswered.
constexpr std::size_t checkinsAtOnce = 32;

/// What one service can delete.
class Cache {
 public:
  Cache(const std::string& path, std::uint64_t bytes)
      : file_(mustCall(open(path.c_str(), O_CREAT | O_RDWR | O_TRUNC | O_CLOEXEC, 0600), path.c_str())), full_(bytes) {
    fill();
  }

  void fill() {
    if (bytes_ != full_) {
      mustCall(fallocate(file_, 0, 0, static_cast<off_t>(full_)), "filling a cache");
      bytes_ = full_;
    }
  }

  /// Frees whole pages, at least the amount while there is so much, and returns how many bytes.
  std::uint64_t free(std::uint64_t amount) {
    const std::uint64_t wanted = (amount + pageBytes - 1) / pageBytes * pageBytes;
    const std::uint64_t freed = wanted < bytes_ ? wanted : bytes_;
    bytes_ -= freed;
    mustCall(ftruncate(file_, static_cast<off_t>(bytes_)), "shortening a cache");
    return freed;
  }

 private:
  const int file_;
  const std::uint64_t full_;
  std::uint64_t bytes_ = 0;
};

/// Serves the daemon, to which every service checks in on an endpoint of its own, and a bare caller, whose
/// connections reach the services in turn.
class Services {
 public:
  /// The first so many of them have something to give.
  Services(std::size_t count, const std::string& volume, std::uint64_t pages, std::size_t rich) : count_(count) {
    for (std::size_t number = 0; number < count; ++number) {
      caches_.emplace_back(volume + "/" + std::to_string(number), number < rich ? pages * pageBytes : 0);
    }
  }

  [[noreturn]] void run(const std::string& daemonSocket, const std::string& bareSocket) {
    daemon_ = connectTo(daemonSocket);
    sd_bus* const daemon = daemon_.get();
    for (std::size_t number = 0; number < count_; ++number) {
      int ends[2];
      mustCall(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), "an endpoint");
      server_.add(serveOn(ends[1]));
      endpoints_.push_back(ends[0]);
    }
    server_.add(std::move(daemon_));
    while (checkedIn_ < count_) {
      while (begun_ < count_ && begun_ - checkedIn_ < checkinsAtOnce) {
        beginCheckin(daemon);
      }
      // What was sent may have to wait for its turn in the library, which is not in epoll.
      must(sd_bus_flush(daemon), "a check-in");
      server_.turn(true);
    }
    server_.acceptFrom(listenAt(bareSocket));
    // Whoever started this process waits for it.
    std::puts("ready");
    std::fflush(stdout);
    server_.run();
  }

 private:
  void beginCheckin(sd_bus* daemon) {
    const int endpoint = endpoints_[begun_];
    const std::string identifier = "com.example.bench." + std::to_string(begun_);
    must(sd_bus_call_method_async(daemon, nullptr, nullptr, daemonPath, daemonInterface, "clientCheckin",
                                  checkinAnswered, this, "sha{sv}", identifier.c_str(), endpoint, 1, "PURGE", "b", 1),
         "a check-in");
    close(endpoint);
    ++begun_;
  }

  static int checkinAnswered(sd_bus_message* reply, void* services, sd_bus_error*) {
    if (sd_bus_message_is_method_error(reply, nullptr) != 0) {
      must(-sd_bus_message_get_errno(reply), "a check-in");
    }
    ++static_cast<Services*>(services)->checkedIn_;
    return 1;
  }

  void answer(std::size_t connection, sd_bus_message* call) {
    const std::string_view member = sd_bus_message_get_member(call);
    sd_bus_message* made = nullptr;
    must(sd_bus_message_new_method_return(call, &made), "an answer");
    if (member == "servicePurge") {
      const std::size_t number = connection < count_ ? connection : connection - count_ - 1;
      const std::uint64_t freed = caches_[number % count_].free(amountOf(call));
      must(sd_bus_message_append(made, "v", "a{sv}", 1, "KELVANE_AMOUNT", "t", freed), "an answer");
      ++requests_;
    } else if (member == "servicePurgeable") {
      must(sd_bus_message_append(made, "v", "a{sv}", 1, "KELVANE_AMOUNT", "t", purgeableBytes), "an answer");
      ++requests_;
    } else if (member == "Hello") {
      // Stock tools begin with it.
      must(sd_bus_message_append(made, "s", ":1.0"), "an answer");
    } else if (member == "Refill" || member == "CountRequests") {
      must(sd_bus_message_append(made, "t", requests_), "an answer");
      requests_ = 0;
      if (member == "Refill") {
        for (Cache& cache : caches_) {
          cache.fill();
        }
      }
    }
    server_.send(made);
  }

  static std::uint64_t amountOf(sd_bus_message* call) {
    std::uint64_t amount = 0;
    must(sd_bus_message_skip(call, "i"), "an urgency");
    must(sd_bus_message_enter_container(call, 'a', "{sv}"), "an info");
    while (sd_bus_message_enter_container(call, 'e', "sv") > 0) {
      const char* key = nullptr;
      must(sd_bus_message_read_basic(call, 's', &key), "a key");
      if (std::string_view(key) == "KELVANE_AMOUNT") {
        must(sd_bus_message_read(call, "v", "t", &amount), "an amount");
      } else {
        must(sd_bus_message_skip(call, "v"), "a value");
      }
      must(sd_bus_message_exit_container(call), "an entry");
    }
    return amount;
  }

  const std::size_t count_;
  std::deque<Cache> caches_;
  BareServer server_{[this](std::size_t connection, sd_bus_message* call) { answer(connection, call); }};
  Bus daemon_;
  std::deque<int> endpoints_;
  std::size_t begun_ = 0;
  std::size_t checkedIn_ = 0;
  /// Purges and queries answered since they were last asked for their number.
  std::uint64_t requests_ = 0;
};

}  // namespace

}  // namespace kelvane::bench

int main(int count, char** arguments) {
  if (count != 6 && count != 7) {
    std::fprintf(stderr, "Usage: bench-services COUNT VOLUME PAGES DAEMON-SOCKET BARE-SOCKET [RICH]\n");
    return 2;
  }
  kelvane::bench::raiseDescriptorLimit();
  const std::size_t services = std::stoul(arguments[1]);
  kelvane::bench::Services served(services, arguments[2], std::stoul(arguments[3]),
                                  count == 7 ? std::stoul(arguments[6]) : services);
  served.run(arguments[4], arguments[5]);
}
