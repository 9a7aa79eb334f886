// SPDX-License-Identifier: Apache-2.0
// The daemon's listener: whom it admits, what it delivers, what it does when it cannot listen.
#include "support/KelvaneListener.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/Limits.h"
#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Names.h"
#include "support/KelvaneLog.h"
#include "support/Settings.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

namespace protocol = KelvaneClientProtocol;

/// Remembers what it was asked and by whom.
class RememberingObject : public KelvaneExportedObject {
 public:
  void clientCheckin(const std::string& identifier, const ipc::Endpoint& endpoint, const Value& info,
                     CheckinReply reply) override {
    remember("checkin " + identifier, info);
    endpointGiven = endpoint.state() != nullptr;
    reply(Value::Dictionary{{"answer", identifier}}, {});
  }
  std::optional<std::uint32_t> ownerOf(const std::string& identifier) const override {
    const auto found = owners.find(identifier);
    return found != owners.end() ? std::optional(found->second) : std::nullopt;
  }
  void clientPurgeableSpace(const Value& info, ValueReply replyBlock) override {
    remember("query", info);
    replyBlock("plain");
  }
  void clientItemizedPurgeableSpace(const Value& info, ValueReply replyBlock) override {
    remember("itemized query", info);
    replyBlock("itemized");
  }
  void clientSetState(const Value& value, const std::string& key, SetReply replyBlock) override {
    remember("set " + key, value);
    replyBlock(setError);
  }
  void clientGetState(const Value& key, ValueReply replyBlock) override {
    remember("get", key);
    replyBlock({});
  }
  void clientPurge(const Value& info, ValueReply replyBlock) override {
    remember("purge", info);
    onPurge();
    replyBlock(Value::Dictionary{{"purged", info["amount"]}});
  }
  void clientCancelPurge(const Value& info, Reply replyBlock) override {
    remember("cancel", info);
    replyBlock();
  }

  std::function<void()> onPurge = [] {};
  std::optional<StateError> setError;
  std::map<std::string, std::uint32_t> owners;
  std::vector<std::string> calls;
  std::vector<Value> infos;
  std::vector<std::string> callers;
  bool endpointGiven = false;

 private:
  void remember(const std::string& call, const Value& info) {
    calls.push_back(call);
    infos.push_back(info);
    callers.push_back(currentConnection().peer().description());
  }
};

class TheListener : public DaemonTest {
 protected:
  /// Runs body while the listener serves the object to those who hold these entitlements.
  void serve(const std::vector<std::string>& required, const std::function<void()>& body) {
    run([&] {
      writeEntitlements(*simulation);
      listener_ = KelvaneListener::daemonListenerWithExportedObject(object);
      for (const std::string& entitlement : required) {
        listener_->addRequiredEntitlement(entitlement);
      }
      listener_->resume();
      body();
      simulation->settle();
      listener_.reset();
    });
  }

  std::shared_ptr<Answer> askToPurge(const TestClient& client) {
    const auto answer = client.send(protocol::clientPurge, {Value(Value::Dictionary{{"amount", 5}})});
    simulation->settle();
    return answer;
  }
  bool isServed(const std::string& user) { return askToPurge(clientOf(user))->arrived; }

  RememberingObject object;
  std::unique_ptr<KelvaneListener> listener_;
};

TEST_F(TheListener, AdmitsThoseWhoHoldTheRequiredEntitlement) {
  serve({entitlements::client}, [&] {
    EXPECT_TRUE(isServed("root"));
    EXPECT_TRUE(isServed("client"));
    EXPECT_TRUE(isServed("partial"));
    EXPECT_FALSE(isServed("nobody"));
    EXPECT_EQ(object.calls.size(), 3u);
    EXPECT_EQ(log().texts(3),
              std::vector<std::string>{"-[KelvaneListener resume] refused a connection: pid 100, uid 1000 lacks "
                                       "CLIENT_ENTITLEMENT; a rule in /etc/kelvane/entitlements.d gives it, such as { "
                                       "User = 1000; Entitlements = (CLIENT_ENTITLEMENT); }"});
  });
}

TEST_F(TheListener, AdmitsOnlyThoseWhoHoldEveryRequiredEntitlement) {
  serve({entitlements::client, entitlements::purge}, [&] {
    EXPECT_TRUE(isServed("client"));
    EXPECT_FALSE(isServed("partial"));
  });
}

TEST_F(TheListener, RefusesTheIdentifierOfAnotherUserBeforeTheObjectIsAsked) {
  settings.ownedIdentifiers = true;
  serve({}, [&] {
    object.owners = {{"roots", 0}, {"anothers", 7}};
    ScriptedService service("any");
    const TestClient client;
    const auto outcomeOf = [&](const std::string& identifier) {
      return client.checkInOutcome(identifier, service.endpoint(), Value::Dictionary{});
    };
    const auto refused = outcomeOf("anothers");
    ASSERT_TRUE(std::holds_alternative<ipc::CallError>(refused));
    EXPECT_EQ(std::get<ipc::CallError>(refused).text,
              "org.freedesktop.DBus.Error.AccessDenied: The identifier belongs to another user");
    EXPECT_TRUE(object.calls.empty());
    EXPECT_TRUE(std::holds_alternative<Value>(outcomeOf("roots")));
    EXPECT_TRUE(std::holds_alternative<Value>(outcomeOf("nobodys")));
    settings.ownedIdentifiers = false;
    EXPECT_TRUE(std::holds_alternative<Value>(outcomeOf("anothers")));
  });
}

TEST_F(TheListener, RefusesWhatTheRulesLeaveOutBeforeTheObjectIsAsked) {
  run([&] {
    simulation->files().write("/etc/kelvane/entitlements.d/rules.plist",
                              "<plist><dict><key>User</key><string>client</string>"
                              "<key>Entitlements</key><array><string>CLIENT_ENTITLEMENT</string></array>"
                              "<key>Members</key><array><string>clientPurge</string><string>clientCheckin</string>"
                              "<string>clientSetState</string><string>clientGetState</string></array>"
                              "<key>Identifiers</key><array><string>mine.*</string></array>"
                              "<key>StateKeys</key><array><string>key</string></array></dict></plist>");
    const auto listener = KelvaneListener::daemonListenerWithExportedObject(object);
    listener->addRequiredEntitlement(entitlements::client);
    listener->resume();
    const TestClient client = clientOf("client");
    ScriptedService service("any");
    EXPECT_TRUE(askToPurge(client)->arrived);
    EXPECT_EQ(client.setState("key", 1), std::nullopt);
    EXPECT_TRUE(
        std::holds_alternative<Value>(client.checkInOutcome("mine.a", service.endpoint(), Value::Dictionary{})));
    EXPECT_EQ(object.calls, (std::vector<std::string>{"purge", "set key", "checkin mine.a"}));

    constexpr char refusal[] = "org.freedesktop.DBus.Error.AccessDenied: The entitlement rules allow no such call";
    EXPECT_EQ(client.setState("other", 1), refusal);
    const auto refused = client.checkInOutcome("other.a", service.endpoint(), Value::Dictionary{});
    ASSERT_TRUE(std::holds_alternative<ipc::CallError>(refused));
    EXPECT_EQ(std::get<ipc::CallError>(refused).text, refusal);
    const auto get = client.send(protocol::clientGetState, {Value("other")});
    const auto query = client.send(protocol::clientPurgeableSpace, {Value(Value::Dictionary{})});
    simulation->settle();
    EXPECT_TRUE(get->value.isAbsent());
    EXPECT_TRUE(query->value.isAbsent());
    EXPECT_EQ(object.calls.size(), 3u);
    EXPECT_EQ(log().count("-[KelvaneListener resume] refused a request: pid 100, uid 1000 meets no rule that allows "
                          "this clientSetState; a rule in /etc/kelvane/entitlements.d does whose Members, Identifiers "
                          "and StateKeys do not leave it out"),
              1u);
    EXPECT_EQ(log().texts(3).size(), 4u);
  });
}

TEST_F(TheListener, CountsTheRefusedWhenTheyAreMany) {
  serve({entitlements::client}, [&] {
    for (int time = 0; time < 100; ++time) {
      EXPECT_FALSE(isServed("nobody"));
    }
    EXPECT_EQ(log().texts(3).size(), 1u);
    simulation->advance(limits::refusalLogInterval);
    EXPECT_FALSE(isServed("nobody"));
    EXPECT_EQ(log().count("-[KelvaneListener resume] refused 100 connections, the last: pid 100, uid 1000 lacks"), 1u);
    EXPECT_EQ(log().texts(3).size(), 2u);
  });
}

TEST_F(TheListener, AdmitsEverybodyWhenNothingIsRequired) {
  serve({}, [&] { EXPECT_TRUE(isServed("nobody")); });
}

TEST_F(TheListener, ServesNobodyBeforeItIsResumed) {
  run([&] {
    writeEntitlements(*simulation);
    const auto listener = KelvaneListener::daemonListenerWithExportedObject(object);
    EXPECT_FALSE(simulation->ipc().isListening(names::daemon));
    EXPECT_TRUE(askToPurge(TestClient())->failed);
    listener->resume();
    EXPECT_TRUE(simulation->ipc().isListening("com.tessaly.kelvane"));
    EXPECT_TRUE(askToPurge(TestClient())->arrived);
  });
}

TEST_F(TheListener, GoesByTheRulesThatWereReadLast) {
  serve({entitlements::client}, [&] {
    simulation->files().write("/etc/kelvane/entitlements.d/test.plist",
                              "{ User = nobody; Entitlements = (CLIENT_ENTITLEMENT); }");
    EXPECT_TRUE(isServed("partial"));
    EXPECT_FALSE(isServed("nobody"));
    listener_->readRulesAgain();
    EXPECT_FALSE(isServed("partial"));
    EXPECT_TRUE(isServed("nobody"));
  });
}

TEST_F(TheListener, CutsOffWhomRulesThatAreReadAgainDoNotAdmit) {
  serve({entitlements::client}, [&] {
    const TestClient partial = clientOf("partial");
    const TestClient client = clientOf("client");
    EXPECT_TRUE(askToPurge(partial)->arrived);
    EXPECT_TRUE(askToPurge(client)->arrived);
    simulation->files().write("/etc/kelvane/entitlements.d/test.plist",
                              "{ User = client; Entitlements = (CLIENT_ENTITLEMENT); }");
    listener_->readRulesAgain();
    simulation->settle();
    EXPECT_TRUE(partial.connection().hasEnded());
    EXPECT_TRUE(askToPurge(partial)->failed);
    EXPECT_TRUE(askToPurge(client)->arrived);
    EXPECT_EQ(log().texts(3).size(), 1u);
    EXPECT_EQ(log().count("refused a connection: pid 100, uid 1000 lacks CLIENT_ENTITLEMENT"), 1u);
  });
}

TEST_F(TheListener, CutsEverybodyOffWhenTheRulesCannotBeReadAgainAndSaysSo) {
  serve({entitlements::client}, [&] {
    const TestClient client = clientOf("client");
    EXPECT_TRUE(askToPurge(client)->arrived);
    simulation->files().makeUnreadable("/etc/kelvane/entitlements.d/test.plist");
    listener_->readRulesAgain();
    simulation->settle();
    EXPECT_TRUE(client.connection().hasEnded());
    EXPECT_EQ(
        log().count("unable to read /etc/kelvane/entitlements.d/test.plist: Permission denied; it grants nothing"), 1u);
  });
}

TEST_F(TheListener, BringsEachRequestToItsFunctionAndTheAnswerBack) {
  serve({}, [&] {
    const TestClient client;
    const Value info = Value::Dictionary{{"amount", 5}};
    const ScriptedService service("a");
    const auto checkin = client.checkIn("a", service.endpoint(), info);
    const auto purge = client.send(protocol::clientPurge, {info});
    const auto cancel = client.send(protocol::clientCancelPurge, {Value(Value::Dictionary{})});
    const auto query = client.send(protocol::clientPurgeableSpace, {info});
    const auto itemized = client.send(protocol::clientItemizedPurgeableSpace, {info});
    const auto set = client.send(protocol::clientSetState, {Value(7), Value("key")});
    const auto get = client.send(protocol::clientGetState, {Value("key")});
    simulation->settle();
    EXPECT_EQ(object.calls,
              (std::vector<std::string>{"checkin a", "purge", "cancel", "query", "itemized query", "set key", "get"}));
    EXPECT_EQ(object.infos, (std::vector<Value>{info, info, Value::Dictionary{}, info, info, 7, "key"}));
    EXPECT_EQ(query->value, Value("plain"));
    EXPECT_EQ(itemized->value, Value("itemized"));
    EXPECT_TRUE(set->arrived);
    EXPECT_TRUE(get->arrived);
    EXPECT_TRUE(get->value.isAbsent());
    EXPECT_TRUE(object.endpointGiven);
    EXPECT_EQ(checkin->value, Value(Value::Dictionary{{"answer", "a"}}));
    EXPECT_EQ(purge->value, Value(Value::Dictionary{{"purged", 5}}));
    EXPECT_TRUE(cancel->arrived);
    EXPECT_TRUE(cancel->value.isAbsent());
  });
}

TEST_F(TheListener, SaysWhyAStateValueWasNotStored) {
  using Cause = KelvaneExportedObject::StateError::Cause;
  serve({}, [&] {
    const TestClient client;
    EXPECT_EQ(client.setState("key", 1), std::nullopt);
    object.setError = {Cause::TooMuch, "too much"};
    EXPECT_EQ(client.setState("key", 1), "org.freedesktop.DBus.Error.LimitsExceeded: too much");
    object.setError = {Cause::Unstorable, "odd"};
    EXPECT_EQ(client.setState("key", 1), "org.freedesktop.DBus.Error.InvalidArgs: odd");
    object.setError = {Cause::NotWritten, "no disk"};
    EXPECT_EQ(client.setState("key", 1), "org.freedesktop.DBus.Error.IOError: no disk");
  });
}

TEST_F(TheListener, TellsWhoseRequestIsBeingDelivered) {
  serve({}, [&] {
    const auto clientWith = [&](int pid) {
      const simulated::ActingAs process({.pid = pid, .user = "client"});
      return TestClient();
    };
    askToPurge(clientWith(1));
    askToPurge(clientWith(2));
    EXPECT_EQ(object.callers, (std::vector<std::string>{"pid 1, uid 0", "pid 2, uid 0"}));
  });
}

TEST_F(TheListener, TellsRequestsApartThatAreDeliveredAtOnce) {
  for (std::uint64_t seed = 0; seed < 20; ++seed) {
    SCOPED_TRACE(seed);
    run(
        [&] {
          std::map<std::string, std::string> afterwards;
          const Semaphore goOn(0);
          object.onPurge = [&] {
            const std::string before = currentConnection().peer().description();
            goOn.wait();
            afterwards[before] = currentConnection().peer().description();
          };
          const auto listener = KelvaneListener::daemonListenerWithExportedObject(object);
          listener->resume();
          std::vector<TestClient> clients;
          for (const int pid : {1, 2}) {
            const simulated::ActingAs process({.pid = pid});
            clients.emplace_back();
            askToPurge(clients.back());
          }
          goOn.signal();
          goOn.signal();
          simulation->settle();
          EXPECT_EQ(afterwards, (std::map<std::string, std::string>{{"pid 1, uid 0", "pid 1, uid 0"},
                                                                    {"pid 2, uid 0", "pid 2, uid 0"}}));
        },
        seed);
  }
}

using TheListenerDeathTest = TheListener;

TEST_F(TheListenerDeathTest, HasNoCurrentConnectionOutsideADelivery) {
  EXPECT_DEATH(currentConnection(), "no request is being delivered on this thread");
}

class AListenerThatCannotListen : public TheListener {
 protected:
  /// Tries to listen under a log that is configured like this.
  void tryToListen(const std::string& logEntries) {
    run([&] {
      simulation->files().write("/etc/kelvane/log.plist", plist("<dict>" + logEntries + "</dict>"));
      configureLog();
      simulation->ipc().refuse(names::daemon, "Address already in use");
      globalQueue::async([&] {
        const auto listener = KelvaneListener::daemonListenerWithExportedObject(object);
        listener->resume();
        ADD_FAILURE() << "it went on";
      });
      simulation->settle();
      EXPECT_EQ(simulation->process().exitStatus(), 1);
      EXPECT_EQ(log().texts(3),
                std::vector<std::string>{"-[KelvaneListener resume] unable to listen: Address already in use"});
    });
  }
};

TEST_F(AListenerThatCannotListen, SaysSoAndEndsTheProcess) {
  tryToListen("<key>Threshold</key><integer>5</integer>");
}

TEST_F(AListenerThatCannotListen, SaysSoWhateverTheThreshold) {
  tryToListen("<key>Threshold</key><integer>0</integer>");
}

TEST_F(AListenerThatCannotListen, SaysSoWithoutAHandle) {
  tryToListen("<key>Handle</key><false/>");
}

}  // namespace
}  // namespace kelvane::test
