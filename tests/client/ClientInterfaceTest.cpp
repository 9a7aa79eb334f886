// SPDX-License-Identifier: Apache-2.0
// The client interface by itself: what it passes on, and where its answers are made.
#include "client/ClientInterface.h"

#include <gtest/gtest.h>

#include <vector>

#include "protocols/KelvaneClientProtocol.h"
#include "protocols/KelvaneServiceProtocol.h"
#include "support/KelvaneListener.h"
#include "tests/harness/DaemonTest.h"

namespace kelvane::test {
namespace {

thread_local int requestsHere = 0;

/// Whether the calling thread delivers a request at the moment.
bool isInRequest() {
  return requestsHere > 0;
}

class RequestScope {
 public:
  RequestScope() { ++requestsHere; }
  ~RequestScope() { --requestsHere; }
  RequestScope(const RequestScope&) = delete;
  RequestScope& operator=(const RequestScope&) = delete;
};

/// Queries, purges, notifications and pings are the test's; the rest is as it is in the daemon.
class PlainInterface : public ClientInterface {
 public:
  PlainInterface() { setSharedKelvane(this); }
  ~PlainInterface() override { setSharedKelvane(nullptr); }

  Value purge(const Value& info, const ResultCallback& callback, const Requester& requester) override {
    hadRequester = requester.has_value();
    purgedInRequest = isInRequest();
    purgeInfos.push_back(info);
    hadCallback = static_cast<bool>(callback);
    return "purged";
  }
  Value totalAvailable(const Value& info, const Requester& requester) override {
    hadRequester = requester.has_value();
    queriedInRequest = isInRequest();
    queryInfos.push_back(info);
    return "available";
  }
  void notifyRecipients(const std::string&, const Value&) override {}
  bool pingService(const KelvaneServiceProxy&) override {
    pingedOnCollectionQueue = collection_queue().isCurrent();
    return true;
  }
  void put(const std::shared_ptr<KLService>& record) KELVANE_NO_THREAD_SAFETY_ANALYSIS { services_.set(record); }
  std::shared_ptr<KLService> find(const std::string& identifier) KELVANE_NO_THREAD_SAFETY_ANALYSIS {
    return services_.find(identifier);
  }
  void describe(const std::string& identifier) KELVANE_NO_THREAD_SAFETY_ANALYSIS { daemons_.insert(identifier); }

  bool queriedInRequest = false;
  std::vector<Value> queryInfos;
  bool purgedInRequest = false;
  std::vector<Value> purgeInfos;
  bool hadCallback = false;
  bool hadRequester = false;
  bool pingedOnCollectionQueue = false;
};

/// Stands before the interface and looks where its answers come from.
class WatchingObject : public KelvaneExportedObject {
 public:
  explicit WatchingObject(PlainInterface& interface) : interface_(interface) {}

  void clientCheckin(const std::string& identifier, const ipc::Endpoint& endpoint, const Value& info,
                     CheckinReply reply) override {
    const RequestScope scope;
    interface_.clientCheckin(identifier, endpoint, info, [this, reply](const Value& dictionary, const auto& error) {
      answer();
      EXPECT_FALSE(error);
      reply(dictionary, error);
    });
  }
  std::optional<std::uint32_t> ownerOf(const std::string& identifier) const override {
    return interface_.ownerOf(identifier);
  }
  void clientPurgeableSpace(const Value& info, ValueReply replyBlock) override {
    const RequestScope scope;
    interface_.clientPurgeableSpace(info, watched(replyBlock));
  }
  void clientItemizedPurgeableSpace(const Value& info, ValueReply replyBlock) override {
    const RequestScope scope;
    interface_.clientItemizedPurgeableSpace(info, watched(replyBlock));
  }
  void clientPurge(const Value& info, ValueReply replyBlock) override {
    const RequestScope scope;
    interface_.clientPurge(info, watched(replyBlock));
  }
  void clientCancelPurge(const Value& info, Reply replyBlock) override {
    const RequestScope scope;
    interface_.clientCancelPurge(info, [this, replyBlock] {
      answer();
      replyBlock();
    });
  }

  void clientSetState(const Value& value, const std::string& key, SetReply replyBlock) override {
    const RequestScope scope;
    interface_.clientSetState(value, key, [this, replyBlock](const std::optional<StateError>& error) {
      answer();
      replyBlock(error);
    });
  }
  void clientGetState(const Value& key, ValueReply replyBlock) override {
    const RequestScope scope;
    interface_.clientGetState(key, watched(replyBlock));
  }

  bool answeredInRequest = false;
  bool answeredOnCollectionQueue = false;
  bool answeredOnDefaultsQueue = false;

 private:
  ValueReply watched(const ValueReply& replyBlock) {
    return [this, replyBlock](const Value& value) {
      answer();
      replyBlock(value);
    };
  }
  void answer() {
    answeredInRequest = isInRequest();
    answeredOnCollectionQueue = interface_.collection_queue().isCurrent();
    answeredOnDefaultsQueue = interface_.defaults_queue().isCurrent();
  }

  PlainInterface& interface_;
};

class TheClientInterface : public DaemonTest {
 protected:
  void serve(const std::function<void()>& body) {
    run([&] {
      writeEntitlements(*simulation);
      PlainInterface plain;
      WatchingObject watching(plain);
      const auto listener = KelvaneListener::daemonListenerWithExportedObject(watching);
      listener->addRequiredEntitlement("CLIENT_ENTITLEMENT");
      listener->resume();
      interface = &plain;
      object = &watching;
      body();
      simulation->settle();
    });
  }

  std::shared_ptr<Answer> send(const TestClient& client, const ipc::Operation& operation, ipc::Arguments arguments) {
    const auto answer = client.send(operation, std::move(arguments));
    simulation->settle();
    EXPECT_TRUE(answer->arrived);
    return answer;
  }

  PlainInterface* interface = nullptr;
  WatchingObject* object = nullptr;
};

const Value someInfo = Value::Dictionary{{"KELVANE_VOLUME", 7}, {"anything", "else"}};

TEST_F(TheClientInterface, PurgesOnTheRequestsThreadWithTheInfoAsItCameAndNoCallback) {
  serve([&] {
    const auto answer = send(clientOf("client"), KelvaneClientProtocol::clientPurge, {someInfo});
    EXPECT_EQ(answer->value, Value("purged"));
    EXPECT_EQ(interface->purgeInfos, std::vector<Value>{someInfo});
    EXPECT_FALSE(interface->hadCallback);
    EXPECT_TRUE(interface->hadRequester);
    EXPECT_TRUE(interface->purgedInRequest);
  });
}

TEST_F(TheClientInterface, AnswersAPurgeFromAnotherThread) {
  serve([&] {
    send(clientOf("client"), KelvaneClientProtocol::clientPurge, {someInfo});
    EXPECT_FALSE(object->answeredInRequest);
  });
}

TEST_F(TheClientInterface, AnswersARefusedPurgeFromAnotherThreadToo) {
  serve([&] {
    const auto answer = send(clientOf("partial"), KelvaneClientProtocol::clientPurge, {someInfo});
    EXPECT_TRUE(answer->value.isAbsent());
    EXPECT_TRUE(interface->purgeInfos.empty());
    EXPECT_FALSE(object->answeredInRequest);
  });
}

TEST_F(TheClientInterface, QueriesOnTheRequestsThreadWithTheInfoAsItCame) {
  serve([&] {
    for (const ipc::Operation* operation :
         {&KelvaneClientProtocol::clientPurgeableSpace, &KelvaneClientProtocol::clientItemizedPurgeableSpace}) {
      interface->queryInfos.clear();
      EXPECT_EQ(send(clientOf("client"), *operation, {someInfo})->value, Value("available"));
      EXPECT_EQ(interface->queryInfos, std::vector<Value>{someInfo});
      EXPECT_TRUE(interface->queriedInRequest);
      EXPECT_TRUE(interface->hadRequester);
      EXPECT_FALSE(object->answeredInRequest);
    }
  });
}

TEST_F(TheClientInterface, AnswersARefusedQueryFromAnotherThreadToo) {
  serve([&] {
    for (const ipc::Operation* operation :
         {&KelvaneClientProtocol::clientPurgeableSpace, &KelvaneClientProtocol::clientItemizedPurgeableSpace}) {
      EXPECT_TRUE(send(clientOf("partial"), *operation, {someInfo})->value.isAbsent());
      EXPECT_TRUE(interface->queryInfos.empty());
      EXPECT_FALSE(object->answeredInRequest);
    }
  });
}

TEST_F(TheClientInterface, ReadsStateOnTheDefaultsQueueWithoutHoldingTheRequestsThread) {
  serve([&] {
    interface->defaults_queue().suspend();
    bool returned = false;
    globalQueue::async([&] {
      interface->clientGetState("key", [](const Value&) {});
      interface->clientSetState(1, "key", [](const std::optional<KelvaneExportedObject::StateError>&) {});
      returned = true;
    });
    simulation->settle();
    EXPECT_TRUE(returned);
    interface->defaults_queue().resume();
    send(clientOf("partial"), KelvaneClientProtocol::clientGetState, {Value("key")});
    EXPECT_TRUE(object->answeredOnDefaultsQueue);
    EXPECT_FALSE(object->answeredInRequest);
  });
}

TEST_F(TheClientInterface, AnswersACancelOnTheRequestsThread) {
  serve([&] {
    send(clientOf("partial"), KelvaneClientProtocol::clientCancelPurge, {someInfo});
    EXPECT_TRUE(object->answeredInRequest);
  });
}

TEST_F(TheClientInterface, LooksForWhatToCancelOnTheCollectionQueue) {
  serve([&] {
    interface->collection_queue().suspend();
    const auto answer = clientOf("partial").send(KelvaneClientProtocol::clientCancelPurge, {someInfo});
    simulation->settle();
    EXPECT_FALSE(answer->arrived);
    interface->collection_queue().resume();
  });
}

TEST_F(TheClientInterface, AnswersACheckInOnTheCollectionQueueWhereItPings) {
  serve([&] {
    const ScriptedService service("a");
    send(TestClient(), KelvaneClientProtocol::clientCheckin, {Value("a"), service.endpoint(), someInfo});
    EXPECT_TRUE(interface->pingedOnCollectionQueue);
    EXPECT_TRUE(object->answeredOnCollectionQueue);
    EXPECT_FALSE(object->answeredInRequest);
  });
}

TEST_F(TheClientInterface, ForgetsOnlyTheVeryRecordWhoseConnectionWasInvalidated) {
  serve([&] {
    const ScriptedService service("a");
    send(TestClient(), KelvaneClientProtocol::clientCheckin, {Value("a"), service.endpoint(), someInfo});
    const auto older = interface->find("a");
    ASSERT_NE(older, nullptr);
    const auto newer = std::make_shared<KLService>("a");
    interface->put(newer);
    older->vexConn()->invalidate();
    simulation->settle();
    EXPECT_TRUE(log().contains("invalidationHandler ENTRY"));
    EXPECT_EQ(interface->find("a"), newer);
  });
}

TEST_F(TheClientInterface, DoesNotKeepARecordAliveByItsConnectionsHandlers) {
  serve([&] {
    const TestClient client;
    const ScriptedService service("a");
    simulation->settle();
    const int before = simulation->ipc().openConnections();
    send(client, KelvaneClientProtocol::clientCheckin, {Value("a"), service.endpoint(), someInfo});
    const std::weak_ptr<KLService> record = interface->find("a");
    EXPECT_FALSE(record.expired());
    EXPECT_GT(simulation->ipc().openConnections(), before);
    interface->put(std::make_shared<KLService>("a"));
    simulation->settle();
    EXPECT_TRUE(record.expired());
    EXPECT_EQ(simulation->ipc().openConnections(), before);
  });
}

TEST_F(TheClientInterface, ForgetsOnlyTheVeryRecordWhoseConnectionEnded) {
  serve([&] {
    const auto newer = std::make_shared<KLService>("a");
    std::shared_ptr<KLService> older;
    {
      const ScriptedService service("a");
      send(TestClient(), KelvaneClientProtocol::clientCheckin, {Value("a"), service.endpoint(), someInfo});
      // Held, so that its connection ends with its service and not with the record.
      older = interface->find("a");
      ASSERT_NE(older, nullptr);
      interface->put(newer);
    }
    simulation->settle();
    EXPECT_TRUE(log().contains("interruptionHandler ENTRY"));
    EXPECT_EQ(interface->find("a"), newer);
  });
}

TEST_F(TheClientInterface, AnswersTheCheckInOfADescribedServiceAtOnce) {
  serve([&] {
    interface->describe("described");
    const ScriptedService service("described");
    interface->collection_queue().suspend();
    send(TestClient(), KelvaneClientProtocol::clientCheckin, {Value("described"), service.endpoint(), someInfo});
    EXPECT_TRUE(object->answeredInRequest);
    interface->collection_queue().resume();
  });
}

TEST_F(TheClientInterface, LooksForDescribedServicesOnTheDaemonsQueue) {
  serve([&] {
    interface->describe("described");
    const ScriptedService service("described");
    interface->daemons_queue().suspend();
    const auto answer = TestClient().checkIn("described", service.endpoint(), someInfo);
    simulation->settle();
    EXPECT_FALSE(answer->arrived);
    interface->daemons_queue().resume();
  });
}

TEST_F(TheClientInterface, RefusesACheckInWithoutWaitingForTheCollectionQueue) {
  serve([&] {
    const ScriptedService service("a");
    interface->collection_queue().suspend();
    const auto answer = clientOf("partial").checkIn("a", service.endpoint(), someInfo);
    simulation->settle();
    EXPECT_FALSE(answer->arrived);
    EXPECT_TRUE(log().contains("Connection is not entitled!"));
    interface->collection_queue().resume();
  });
}

}  // namespace
}  // namespace kelvane::test
