// SPDX-License-Identifier: Apache-2.0
// Notifications and pings.
#include <gtest/gtest.h>

#include "platform/Limits.h"
#include "support/KelvaneServiceProxy.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

constexpr char blockName[] = "-[Kelvane notifyRecipients:value:]_block";

class ANotification : public DaemonTest {
 protected:
  void prepare() override {
    describe("/System/Library/Kelvane/described",
             "<key>KELVANE_ID</key><string>com.example.described</string>"
             "<key>KELVANE_NOTIFICATIONS</key><array><string>x</string></array>");
  }
};

TEST_F(ANotification, ReachesThoseWhoAskedForItWithOneEntry) {
  runDaemon([&] {
    ScriptedService asked("asked");
    ScriptedService other("other");
    ScriptedService none("none");
    const TestClient client;
    checkIn(client, asked, {{"KELVANE_NOTIFICATIONS", Value::Array{"y", "x"}}});
    checkIn(client, other, {{"KELVANE_NOTIFICATIONS", Value::Array{"y"}}});
    checkIn(client, none, {});
    kelvane->notifyRecipients("x", 7);
    simulation->settle();
    EXPECT_EQ(asked.calls(), (std::vector<std::string>{"servicePing", "serviceNotify"}));
    EXPECT_EQ(asked.infos(), std::vector<Value>{Value(Value::Dictionary{{"x", 7}})});
    EXPECT_EQ(other.count("serviceNotify"), 0u);
    EXPECT_EQ(none.count("serviceNotify"), 0u);
    EXPECT_TRUE(log().contains("-[Kelvane notifyRecipients:value:] name: x, value: 7"));
    EXPECT_TRUE(log().contains(std::string(blockName) + " 347 serviceID: asked"));
    EXPECT_TRUE(log().texts(3).empty());
  });
}

TEST_F(ANotification, OfARemovedValueMapsItsNameToNothing) {
  runDaemon([&] {
    ScriptedService service("a");
    checkIn(TestClient(), service, {{"KELVANE_NOTIFICATIONS", Value::Array{"x"}}});
    kelvane->notifyRecipients("x", Value());
    simulation->settle();
    ASSERT_EQ(service.infos().size(), 1u);
    EXPECT_EQ(service.infos()[0], Value(Value::Dictionary{{"x", Value()}}));
    EXPECT_TRUE(log().contains("name: x, value: (null)"));
  });
}

TEST_F(ANotification, ThatNobodyAskedForStartsNoExchange) {
  runDaemon([&] {
    ScriptedService service("a");
    checkIn(TestClient(), service);
    log().clear();
    kelvane->notifyRecipients("unknown", "value");
    simulation->settle();
    EXPECT_EQ(log().texts(),
              std::vector<std::string>{"-[Kelvane notifyRecipients:value:] name: unknown, value: value"});
    EXPECT_EQ(service.count("serviceNotify"), 0u);
  });
}

TEST_F(ANotification, ReachesADescribedServiceByItsName) {
  runDaemon([&] {
    ScriptedService described("com.example.described");
    described.listenByName();
    kelvane->notifyRecipients("x", true);
    simulation->settle();
    EXPECT_EQ(described.calls(), std::vector<std::string>{"serviceNotify"});
  });
}

TEST_F(ANotification, ToAServiceThatIsNotThereIsLogged) {
  runDaemon([&] {
    kelvane->notifyRecipients("x", true);
    simulation->settle();
    EXPECT_TRUE(log().contains(std::string(blockName) + " connection invalidated"));
    EXPECT_TRUE(log().texts(3).empty());
  });
}

TEST_F(ANotification, IsNotHeldUpByAServiceThatDoesNotAnswer) {
  runDaemon([&] {
    ScriptedService silent("a");
    silent.onNotify = ScriptedService::silence();
    ScriptedService service("b");
    const TestClient client;
    checkIn(client, silent, {{"KELVANE_NOTIFICATIONS", Value::Array{"x"}}});
    checkIn(client, service, {{"KELVANE_NOTIFICATIONS", Value::Array{"x"}}});
    kelvane->notifyRecipients("x", 1);
    kelvane->notifyRecipients("x", 2);
    simulation->settle();
    EXPECT_EQ(service.infos(),
              (std::vector<Value>{Value(Value::Dictionary{{"x", 1}}), Value(Value::Dictionary{{"x", 2}})}));
  });
}

TEST_F(ANotification, IsSentFromTheNotifyQueue) {
  runDaemon([&] {
    ScriptedService service("a");
    checkIn(TestClient(), service, {{"KELVANE_NOTIFICATIONS", Value::Array{"x"}}});
    kelvane->notify_queue().suspend();
    kelvane->notifyRecipients("x", 1);
    simulation->settle();
    EXPECT_EQ(service.count("serviceNotify"), 0u);
    kelvane->notify_queue().resume();
    simulation->settle();
    EXPECT_EQ(service.count("serviceNotify"), 1u);
  });
}

TEST_F(ANotification, DoesNotReachAServiceThatChecksInAfterwards) {
  runDaemon([&] {
    kelvane->notify_queue().suspend();
    kelvane->notifyRecipients("x", 1);
    ScriptedService service("late");
    checkIn(TestClient(), service, {{"KELVANE_NOTIFICATIONS", Value::Array{"x"}}});
    kelvane->notify_queue().resume();
    simulation->settle();
    EXPECT_EQ(service.count("serviceNotify"), 0u);
  });
}

class APing : public DaemonTest {
 protected:
  static KelvaneServiceProxy proxyTo(const std::shared_ptr<KLService>& record) {
    return KelvaneServiceProxy(record->connectionForCall().remoteProxy([](const std::optional<ipc::CallError>&) {}));
  }
};

TEST_F(APing, ReturnsWhenTheServiceHasAnswered) {
  runDaemon([&] {
    ScriptedService service("a");
    log().clear();
    EXPECT_TRUE(kelvane->pingService(proxyTo(service.record())));
    EXPECT_EQ(service.calls(), std::vector<std::string>{"servicePing"});
    EXPECT_EQ(log().texts(), (std::vector<std::string>{"-[Kelvane pingService:] calling servicePing",
                                                       "-[Kelvane pingService:]_block ping got pong"}));
    EXPECT_TRUE(log().texts(3).empty());
  });
}

TEST_F(APing, ThatIsNeverAnsweredNeverReturns) {
  runDaemon([&] {
    ScriptedService service("a");
    service.onPing = ScriptedService::silence();
    bool returned = false;
    globalQueue::async([&, record = service.record()] {
      kelvane->pingService(proxyTo(record));
      returned = true;
    });
    clock::sleepMicroseconds(4'000'000'000);
    EXPECT_FALSE(returned);
  });
}

TEST_F(ANotification, IsSentInItsTurnToAServiceThatOwesManyAnswers) {
  runDaemon([&] {
    constexpr int count = 5 * limits::outstandingCallsPerService;
    ScriptedService service("a");
    std::vector<ipc::Reply> owed;
    bool isBusy = true;
    service.onNotify = [&](const ScriptedService::Request& request) {
      if (isBusy) {
        owed.push_back(request.reply);
      } else {
        request.reply.send();
      }
    };
    checkIn(TestClient(), service, {{"KELVANE_NOTIFICATIONS", Value::Array{"x"}}});
    for (int number = 0; number < count; ++number) {
      kelvane->notifyRecipients("x", number);
    }
    simulation->settle();
    EXPECT_EQ(owed.size(), static_cast<std::size_t>(limits::outstandingCallsPerService));
    isBusy = false;
    for (const ipc::Reply& reply : owed) {
      reply.send();
    }
    simulation->settle();
    const std::vector<Value> infos = service.infos();
    ASSERT_EQ(infos.size(), static_cast<std::size_t>(count));
    for (int number = 0; number < count; ++number) {
      EXPECT_EQ(infos[static_cast<std::size_t>(number)]["x"], Value(number));
    }
  });
}

}  // namespace
}  // namespace kelvane::test
