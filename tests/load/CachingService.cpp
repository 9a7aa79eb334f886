// SPDX-License-Identifier: Apache-2.0
// A service with a cache, which dies and comes back.
#include "tests/load/CachingService.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "protocols/Keys.h"
#include "tests/hostile/Info.h"
#include "tests/hostile/Places.h"
#include "tests/hostile/WireMessage.h"

namespace kelvane::test {

namespace {

/// A file system frees no less.
constexpr std::uint64_t page = 4096;

bool isCallOf(const Message& call, const char* member) {
  return sd_bus_message_is_method_call(call.get(), nullptr, member) > 0;
}

}  // namespace

CachingService::CachingService(std::string identifier, std::uint64_t capacity, Ledger& ledger, std::size_t account,
                               unsigned seed)
    : identifier_(std::move(identifier)),
      file_(std::string(volume) + "/" + identifier_),
      capacity_(capacity),
      ledger_(ledger),
      account_(account),
      random_(seed) {
  fill();
}

Append CachingService::capabilities() {
  return info({{keys::purge, true}, {keys::notifications, [](sd_bus_message* message) {
                                       return sd_bus_message_append(message, "v", "as", 1, keys::cacheEnabled);
                                     }}});
}

FileDescriptor CachingService::open() {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
  wasPinged_ = false;
  bus_.emplace(ends[1]);
  return FileDescriptor(ends[0]);
}

void CachingService::mayDie(unsigned calls, std::function<void()> die) {
  callsToADeath_ = calls;
  die_ = std::move(die);
}

void CachingService::cut() {
  bus_.reset();
  callsToADeath_ = 0;
}

bool CachingService::serve() {
  while (bus_) {
    const Message call = bus_->pendingCall();
    if (!call) {
      return bus_->socket() >= 0;
    }
    take(call);
  }
  return true;
}

void CachingService::take(const Message& call) {
  const Moment moment =
      callsToADeath_ != 0 && random_() % callsToADeath_ == 0 ? static_cast<Moment>(random_() % 4) : Moment::Never;
  if (moment == Moment::BeforeWork) {
    return die_();
  }
  const Append answer = carryOut(call);
  if (moment == Moment::BeforeAnswer) {
    return die_();
  }
  if (moment == Moment::InAnswer) {
    const std::string bytes = answerTo(call);
    send(bus_->socket(), bytes.data(), 1 + random_() % (bytes.size() - 1), MSG_NOSIGNAL);
    return die_();
  }
  bus_->answer(call, answer);
  if (moment == Moment::AfterAnswer) {
    die_();
  }
}

Append CachingService::carryOut(const Message& call) {
  if (isCallOf(call, "servicePurge")) {
    sd_bus_message_skip(call.get(), "i");
    return reply({{keys::amount, free(nextValue(call)[keys::amount].uint64Value())}});
  }
  if (isCallOf(call, "servicePurgeable")) {
    if (left_ < capacity_ / 4) {
      fill();
    }
    return reply({{keys::amount, left_}});
  }
  wasPinged_ = wasPinged_ || isCallOf(call, "servicePing");
  return nothing;
}

void CachingService::fill() {
  const FileDescriptor file(::open(file_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  EXPECT_EQ(posix_fallocate(file.get(), 0, static_cast<off_t>(capacity_)), 0) << file_;
  left_ = capacity_;
}

std::uint64_t CachingService::free(std::uint64_t bytes) {
  const std::uint64_t freed = std::min(left_, bytes > left_ ? left_ : (bytes + page - 1) / page * page);
  ledger_.beginFreeing(account_, freed);
  left_ -= freed;
  EXPECT_EQ(truncate(file_.c_str(), static_cast<off_t>(left_)), 0);
  ledger_.endFreeing(account_, freed);
  return freed;
}

}  // namespace kelvane::test
