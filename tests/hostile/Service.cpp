// SPDX-License-Identifier: Apache-2.0
// The peers of a test: clients and services.
#include "tests/hostile/Service.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "platform/linux/runtime/FileDescriptor.h"
#include "protocols/Keys.h"

namespace kelvane::test {

bool Client::isServed() {
  return call("clientCancelPurge", info({})).error.empty();
}

Value Client::nextResult() {
  const Message answer = nextAnswer();
  return answer && sd_bus_message_get_error(answer.get()) == nullptr ? nextValue(answer) : Value();
}

Value Client::purge(const Append& info) {
  EXPECT_TRUE(send("clientPurge", info));
  return nextResult();
}

Append checkin(const std::string& identifier, int endpoint, const Append& info) {
  return [=](sd_bus_message* message) {
    const int result = sd_bus_message_append(message, "sh", identifier.c_str(), endpoint);
    return result < 0 ? result : info(message);
  };
}

Append purging() {
  return info({{keys::purge, true}});
}

Service::Service(std::string identifier) : identifier_(std::move(identifier)) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
  endpoint_ = ends[0];
  bus_.emplace(ends[1]);
}

void Service::beginCheckIn(const Append& info) {
  EXPECT_TRUE(client_.send("clientCheckin", checkin(identifier_, endpoint_, info)));
  // The daemon's from here on.
  close(std::exchange(endpoint_, -1));
}

std::string Service::checkInError() {
  const Message answer = client_.nextAnswer();
  const sd_bus_error* error = answer ? sd_bus_message_get_error(answer.get()) : nullptr;
  return error == nullptr ? "" : error->name;
}

void Service::checkIn() {
  beginCheckIn();
  EXPECT_TRUE(bus_->answer(expect("servicePing")));
  EXPECT_EQ(endCheckIn()[keys::id], Value(identifier_));
}

Message Service::expect(const std::string& member) {
  Message call = bus_->nextCall();
  EXPECT_TRUE(call) << "the connection ended before " << member;
  if (call) {
    EXPECT_EQ(sd_bus_message_get_member(call.get()), member);
  }
  return call;
}

void Service::sendBytes(std::string_view bytes) {
  EXPECT_EQ(send(bus_->socket(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

BehavingService::BehavingService(std::string identifier, std::size_t bytes)
    : file_(std::string(volume) + "/" + identifier), left_(bytes), service_(std::move(identifier)) {
  const FileDescriptor file(open(file_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  EXPECT_EQ(posix_fallocate(file.get(), 0, static_cast<off_t>(bytes)), 0);
  service_.checkIn();
  thread_ = std::thread([this] { serve(); });
}

BehavingService::~BehavingService() {
  isLeaving_ = true;
  shutdown(service_.bus().socket(), SHUT_RDWR);
  thread_.join();
  unlink(file_.c_str());
}

void BehavingService::serve() {
  while (const Message call = service_.bus().nextCall()) {
    if (sd_bus_message_is_method_call(call.get(), nullptr, "servicePurge") > 0) {
      sd_bus_message_skip(call.get(), "i");
      service_.bus().answer(call, reply({{keys::amount, free(nextValue(call)[keys::amount].uint64Value())}}));
    } else if (sd_bus_message_is_method_call(call.get(), nullptr, "servicePeriodic") > 0) {
      service_.bus().answer(call, reply({}));
    } else {
      service_.bus().answer(call);
    }
  }
  EXPECT_TRUE(isLeaving_) << "the daemon has hung up";
}

/// By whole pages, as a file system does.
std::uint64_t BehavingService::free(std::uint64_t bytes) {
  const std::uint64_t page = 4096;
  const std::uint64_t freed = std::min(left_, bytes > left_ ? left_ : (bytes + page - 1) / page * page);
  left_ -= freed;
  EXPECT_EQ(truncate(file_.c_str(), static_cast<off_t>(left_)), 0);
  return freed;
}

}  // namespace kelvane::test
