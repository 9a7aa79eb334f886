// SPDX-License-Identifier: Apache-2.0
// What the tests of the IPC facility share.
#include "tests/linux/ipc/IpcTesting.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <future>

#include "platform/linux/ipc/Hub.h"
#include "platform/linux/ipc/PrivateSockets.h"

namespace kelvane::test {

TemporaryDirectory::TemporaryDirectory() {
  char name[] = "/tmp/kelvane-ipc-XXXXXX";
  path_ = mkdtemp(name);
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void settleEventLoop() {
  // What the first task leads to in its own turn comes before the second.
  for (int turn = 0; turn < 2; ++turn) {
    std::promise<void> done;
    ipc::EventLoop::shared().post([&done] { done.set_value(); });
    done.get_future().wait();
  }
}

void settleEnds() {
  settleEventLoop();
  std::promise<void> done;
  ipc::Hub::shared().endHandlers.run([&done] { done.set_value(); });
  done.get_future().wait();
}

namespace {

/// A connection with a call under way goes when its other end does and the loop has noticed. Until then only the system
/// knows it, which the leak check does not ask.
class ConnectionsThatEnd : public testing::Environment {
 public:
  void TearDown() override { settleEnds(); }
};

[[maybe_unused]] const testing::Environment* const connectionsThatEnd =
    testing::AddGlobalTestEnvironment(new ConnectionsThatEnd);

}  // namespace

SampleListener::SampleListener()
    : listener_(ipc::listenAt(path_, 0600, sample::interface,
                              [requests = requests_](ipc::Request request) { requests->put(std::move(request)); })) {}

SampleListener::SampleListener(ipc::RequestHandler handler)
    : listener_(ipc::listenAt(path_, 0600, sample::interface, std::move(handler))) {}

SampleListener::~SampleListener() {
  drop();
  // Handlers may refer to what goes next.
  settleEnds();
}

void SampleListener::resume() {
  const auto error = listener_->resume();
  ASSERT_FALSE(error) << *error;
}

SampleCaller::SampleCaller(ipc::Connection connection, const ipc::Interface& interface)
    : connection_(std::move(connection)) {
  connection_->setRemoteInterface(interface);
  connection_->setInterruptionHandler([ends = ends_] { ends->put("interruption"); });
  connection_->setInvalidationHandler([ends = ends_] { ends->put("invalidation"); });
  proxy_ = connection_->remoteProxy([outcomes = outcomes_](std::optional<ipc::CallError> error) {
    outcomes->put({std::nullopt, error ? error->text : "no error"});
  });
}

void SampleCaller::release() {
  proxy_.reset();
  connection_.reset();
}

void SampleCaller::call(const ipc::Operation& operation, ipc::Arguments arguments, std::chrono::seconds limit) {
  proxy_->call(
      operation, std::move(arguments),
      [outcomes = outcomes_](Value value) {
        outcomes->put({std::move(value), ""});
      },
      limit);
}

std::optional<Value> SampleCaller::ask(const ipc::Operation& operation, ipc::Arguments arguments) {
  call(operation, std::move(arguments));
  const auto outcome = outcomes_->take();
  return outcome ? outcome->reply : std::nullopt;
}

}  // namespace kelvane::test
