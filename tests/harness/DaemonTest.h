// SPDX-License-Identifier: Apache-2.0
// The fixture of tests that run the registry on the simulated platform, and clients for it.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "daemon/Kelvane.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {

/// What became of one call.
struct Answer {
  bool arrived = false;
  Value value;
  /// The connection failed instead.
  bool failed = false;
};

/// A process that is connected to the daemon.
class TestClient {
 public:
  TestClient();

  /// Sends and returns at once; the answer fills in when it comes.
  std::shared_ptr<Answer> send(const ipc::Operation& operation, ipc::Arguments arguments) const;
  std::shared_ptr<Answer> checkIn(const std::string& identifier, const ipc::Endpoint& endpoint,
                                  const Value& info) const;
  /// Sends and waits for the answer.
  std::variant<Value, ipc::CallError> checkInOutcome(const std::string& identifier, const ipc::Endpoint& endpoint,
                                                     const Value& info) const;
  Value purge(const Value& info) const;
  Value purgeableSpace(const Value& info) const;
  Value itemizedPurgeableSpace(const Value& info) const;
  /// Sets or removes a state value and waits for the answer: none, or the error's text.
  std::optional<std::string> setState(const std::string& key, const Value& value) const;
  Value state(const std::string& key) const;

  const ipc::Connection& connection() const { return connection_; }

 private:
  /// Sends and waits for the answer.
  std::variant<Value, ipc::CallError> outcome(const ipc::Operation& operation, ipc::Arguments arguments) const;
  /// Absent when there was an error.
  Value answer(const ipc::Operation& operation, ipc::Arguments arguments) const;

  ipc::Connection connection_;
};

/// A simulated machine on which the registry runs. The user "root" holds every entitlement, "client" those of
/// clients, "nobody" none, "partial" only the right to connect, and "itemizing", "querying" and "purging" that and
/// one other.
class DaemonTest : public OperationTest {
 protected:
  /// Prepares the machine, makes the registry and runs body with it.
  void runDaemon(const std::function<void()>& body, std::uint64_t seed = 0);

  /// Called before the registry is made.
  virtual void prepare() {}

  /// Connects as another user than root.
  TestClient clientOf(const std::string& user);

  /// Runs the body on the registry's defaults queue.
  void onDefaultsQueue(const std::function<void()>& body) const { kelvane->defaults_queue().sync(body); }

  /// Checks a service in and returns when it is known.
  void checkIn(const TestClient& client, const ScriptedService& service, Value::Dictionary info = {{"PURGE", true}});
  void describe(const std::string& file, const std::string& dictionaryXml);

  std::shared_ptr<KLService> recordOf(const std::string& identifier) const;

  std::unique_ptr<Kelvane> kelvane;
};

/// Writes the rules of the users above, for tests that start the daemon themselves.
void writeEntitlements(Simulation& simulation);

/// A property list in XML around the contents of its top element.
std::string plist(const std::string& contents);

}  // namespace kelvane::test
