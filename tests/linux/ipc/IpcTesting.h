// SPDX-License-Identifier: Apache-2.0
// What the tests of the IPC facility share.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "platform/Ipc.h"
#include "tests/linux/ipc/SampleInterface.h"
#include "tests/linux/testing/Eventually.h"

namespace kelvane::test {

/// A directory of its own under /tmp, removed with all that is in it.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::string path(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/// Takes what other threads put in, in order.
template <typename Item>
class Mailbox {
 public:
  void put(Item item) {
    const std::lock_guard lock(mutex_);
    items_.push_back(std::move(item));
    changed_.notify_all();
  }

  /// The next item; none when there is none in time.
  std::optional<Item> take() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, patience, [this] { return !items_.empty(); })) {
      return std::nullopt;
    }
    Item item = std::move(items_.front());
    items_.pop_front();
    return item;
  }

  std::size_t size() {
    const std::lock_guard lock(mutex_);
    return items_.size();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Item> items_;
};

/// Waits until everything that the event loop was given before has been done.
void settleEventLoop();
/// As settleEventLoop(), and until the handlers of the ends that were found have run.
void settleEnds();

/// A listener of the sample interface at a socket in a directory of its own, which puts its requests aside
/// or gives them to a handler.
class SampleListener {
 public:
  SampleListener();
  explicit SampleListener(ipc::RequestHandler handler);
  ~SampleListener();

  const std::string& path() const { return path_; }
  ipc::Listener& listener() { return *listener_; }
  void resume();
  void drop() { listener_.reset(); }
  std::optional<ipc::Request> take() { return requests_->take(); }
  Mailbox<ipc::Request>& requests() { return *requests_; }

 private:
  TemporaryDirectory directory_;
  const std::string path_ = directory_.path("socket");
  const std::shared_ptr<Mailbox<ipc::Request>> requests_ = std::make_shared<Mailbox<ipc::Request>>();
  std::optional<ipc::Listener> listener_;
};

/// Calls sample operations over a connection and keeps what comes back.
class SampleCaller {
 public:
  explicit SampleCaller(ipc::Connection connection, const ipc::Interface& interface = sample::interface);

  ipc::Connection& connection() { return *connection_; }
  void release();
  void call(const ipc::Operation& operation, ipc::Arguments arguments,
            std::chrono::seconds limit = std::chrono::seconds(0));
  /// Calls and waits for the reply; none when the error handler ran instead.
  std::optional<Value> ask(const ipc::Operation& operation, ipc::Arguments arguments);

  struct Outcome {
    std::optional<Value> reply;
    std::string error;
  };
  Mailbox<Outcome>& outcomes() { return *outcomes_; }
  /// "interruption" and "invalidation".
  Mailbox<std::string>& ends() { return *ends_; }

 private:
  std::optional<ipc::Connection> connection_;
  std::optional<ipc::Proxy> proxy_;
  const std::shared_ptr<Mailbox<Outcome>> outcomes_ = std::make_shared<Mailbox<Outcome>>();
  const std::shared_ptr<Mailbox<std::string>> ends_ = std::make_shared<Mailbox<std::string>>();
};

}  // namespace kelvane::test
