// SPDX-License-Identifier: Apache-2.0
// What a client's requests come to.
#include "support/KelvaneClient.h"

#include <gmock/gmock.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/simulated/Simulation.h"
#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Names.h"
#include "tests/harness/PrintValue.h"

namespace kelvane {
namespace {

using Status = KelvaneClientResult::Status;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr int seeds = 20;

const Value info = Value::Dictionary{{"KELVANE_VOLUME", "/data"}};

/// A daemon that records what it is asked and answers each request alike.
ipc::Listener listen(std::vector<std::string>& asked, std::function<void(const ipc::Request&)> answer) {
  ipc::Listener listener =
      ipc::Listener::named(names::daemon, KelvaneClientProtocol::interface,
                           [&asked, answer = std::move(answer)](const ipc::Request& request) {
                             std::string text(request.operation.member);
                             for (std::size_t index = 0; index < request.arguments.size(); ++index) {
                               text += " " + request.value(index).description();
                             }
                             asked.push_back(text);
                             answer(request);
                           });
  static_cast<void>(listener.resume());
  return listener;
}

TEST(AClient, SendsEachRequestAsItsOperation) {
  for (std::uint64_t seed = 0; seed < seeds; ++seed) {
    SCOPED_TRACE(seed);
    Simulation simulation(seed);
    simulation.run([&] {
      std::vector<std::string> asked;
      const auto daemon = listen(asked, [](const ipc::Request& request) { request.reply.send("answer"); });
      const KelvaneClient client;
      const KelvaneClientResult results[] = {
          client.purge(info),       client.purgeableSpace(info),   client.itemizedPurgeableSpace(info),
          client.cancelPurge(info), client.setState(1, "the key"), client.getState("the key"),
      };
      for (const KelvaneClientResult& result : results) {
        EXPECT_EQ(result.status, Status::Answered);
        EXPECT_EQ(result.text, "");
      }
      EXPECT_EQ(results[0].value, Value("answer"));
      EXPECT_EQ(results[5].value, Value("answer"));
      const std::string dictionary = info.description();
      EXPECT_THAT(asked, ElementsAre("clientPurge " + dictionary, "clientPurgeableSpace " + dictionary,
                                     "clientItemizedPurgeableSpace " + dictionary, "clientCancelPurge " + dictionary,
                                     "clientSetState 1 the key", "clientGetState the key"));
    });
  }
}

TEST(AClient, GivesResultsToHandlersWithoutWaiting) {
  for (std::uint64_t seed = 0; seed < seeds; ++seed) {
    SCOPED_TRACE(seed);
    Simulation simulation(seed);
    simulation.run([&] {
      std::vector<std::string> asked;
      const Semaphore mayAnswer(0);
      const auto daemon = listen(asked, [&](const ipc::Request& request) {
        mayAnswer.wait();
        request.reply.send(5);
      });
      const KelvaneClient client;
      std::optional<KelvaneClientResult> result;
      client.purge(info, [&](const KelvaneClientResult& given) { result = given; });
      simulation.settle();
      EXPECT_FALSE(result);
      mayAnswer.signal();
      simulation.settle();
      ASSERT_TRUE(result);
      EXPECT_EQ(result->value, Value(5));
    });
  }
}

TEST(ASpaceRequest, IsRefusedWhenItIsAnsweredWithNone) {
  Simulation simulation;
  simulation.run([&] {
    std::vector<std::string> asked;
    const auto daemon = listen(asked, [](const ipc::Request& request) { request.reply.send(); });
    const KelvaneClient client;
    EXPECT_EQ(client.purge(info).status, Status::Refused);
    EXPECT_EQ(client.purgeableSpace(info).status, Status::Refused);
    EXPECT_EQ(client.itemizedPurgeableSpace(info).status, Status::Refused);
  });
}

TEST(AStateThatIsNotThere, IsAnAnswer) {
  Simulation simulation;
  simulation.run([&] {
    std::vector<std::string> asked;
    const auto daemon = listen(asked, [](const ipc::Request& request) { request.reply.send(); });
    const KelvaneClient client;
    const KelvaneClientResult result = client.getState("nothing");
    EXPECT_EQ(result.status, Status::Answered);
    EXPECT_TRUE(result.value.isAbsent());
  });
}

TEST(ARequest, FailsWithTheDaemonsErrorText) {
  Simulation simulation;
  simulation.run([&] {
    std::vector<std::string> asked;
    const auto daemon = listen(asked, [](const ipc::Request& request) {
      request.reply.sendError("org.freedesktop.DBus.Error.LimitsExceeded", "too much state");
    });
    const KelvaneClient client;
    const KelvaneClientResult result = client.setState(1, "key");
    EXPECT_EQ(result.status, Status::Failed);
    EXPECT_THAT(result.text, HasSubstr("too much state"));
    EXPECT_EQ(client.purge(info).status, Status::Failed);
  });
}

TEST(ARequest, SaysThatThereIsNoDaemon) {
  for (std::uint64_t seed = 0; seed < seeds; ++seed) {
    SCOPED_TRACE(seed);
    Simulation simulation(seed);
    simulation.run([&] {
      const KelvaneClient client;
      const KelvaneClientResult result = client.purge(info);
      EXPECT_EQ(result.status, Status::NoDaemon);
      EXPECT_NE(result.text, "");
    });
  }
}

TEST(ARequest, SaysThatTheDaemonDoesNotAdmitTheProcess) {
  for (std::uint64_t seed = 0; seed < seeds; ++seed) {
    SCOPED_TRACE(seed);
    Simulation simulation(seed);
    simulation.run([&] {
      std::vector<std::string> asked;
      const auto daemon = listen(asked, [](const ipc::Request&) {});
      daemon.setAdmission([](const ipc::Peer&) { return false; });
      const KelvaneClient client;
      EXPECT_EQ(client.purge(info).status, Status::NotAdmitted);
    });
  }
}

TEST(ARequest, SaysThatTheDaemonWentBeforeItAnswered) {
  for (std::uint64_t seed = 0; seed < seeds; ++seed) {
    SCOPED_TRACE(seed);
    Simulation simulation(seed);
    simulation.run([&] {
      std::vector<std::string> asked;
      std::vector<ipc::Reply> held;
      const auto daemon = listen(asked, [&](const ipc::Request& request) { held.push_back(request.reply); });
      const KelvaneClient client;
      std::optional<KelvaneClientResult> result;
      client.purge(info, [&](const KelvaneClientResult& given) { result = given; });
      simulation.settle();
      EXPECT_FALSE(result);
      simulation.ipc().kill(daemon);
      simulation.settle();
      ASSERT_TRUE(result);
      EXPECT_EQ(result->status, Status::ConnectionLost);
      EXPECT_EQ(client.purge(info).status, Status::ConnectionLost);
    });
  }
}

TEST(AClientThatDisconnects, EndsItsRequests) {
  for (std::uint64_t seed = 0; seed < seeds; ++seed) {
    SCOPED_TRACE(seed);
    Simulation simulation(seed);
    simulation.run([&] {
      std::vector<std::string> asked;
      std::vector<ipc::Reply> held;
      const auto daemon = listen(asked, [&](const ipc::Request& request) { held.push_back(request.reply); });
      const KelvaneClient client;
      int lost = 0;
      const auto count = [&](const KelvaneClientResult& result) { lost += result.status == Status::ConnectionLost; };
      client.purge(info, count);
      client.purgeableSpace(info, count);
      simulation.settle();
      client.disconnect();
      simulation.settle();
      EXPECT_EQ(lost, 2);
    });
  }
}

TEST(AClientThatGoes, EndsItsRequests) {
  Simulation simulation;
  simulation.run([&] {
    std::vector<std::string> asked;
    std::vector<ipc::Reply> held;
    const auto daemon = listen(asked, [&](const ipc::Request& request) { held.push_back(request.reply); });
    int lost = 0;
    {
      const KelvaneClient client;
      client.purge(info, [&](const KelvaneClientResult& result) { lost += result.status == Status::ConnectionLost; });
      simulation.settle();
    }
    simulation.settle();
    EXPECT_EQ(lost, 1);
    EXPECT_EQ(simulation.ipc().openConnections(), 0);
  });
}

}  // namespace
}  // namespace kelvane
