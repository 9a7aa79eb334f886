// SPDX-License-Identifier: Apache-2.0
// Services that die in their periodic work, or answer it as they should not.
#include <poll.h>

#include <array>
#include <cmath>
#include <limits>

#include "platform/Limits.h"
#include "platform/linux/ipc/ControlSocket.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/WireMessage.h"

namespace kelvane {
namespace {

using test::Append;
using test::BusClient;
using test::mebibyte;
using test::Message;
using test::reply;
using test::Service;

class PeriodicWork : public test::HostileServiceTest {
 protected:
  static BusClient serviceManager() { return BusClient(test::controlSocket, controlInterface); }

  /// Is answered when the work is done, volume by volume.
  static void begin(BusClient& manager) {
    EXPECT_TRUE(manager.send("runActivity", [](sd_bus_message* message) {
      return sd_bus_message_append(message, "s", names::dailyActivity);
    }));
  }

  /// Returns when the work is done, in all of which the service answers so; it must go on to the end.
  void doAnsweringAlways(const std::function<void(const Message&)>& answer) {
    BusClient manager = serviceManager();
    begin(manager);
    int calls = 0;
    std::array<pollfd, 2> states = {{{manager.socket(), POLLIN, 0}, {service().bus().socket(), POLLIN, 0}}};
    while ((states[0].revents & POLLIN) == 0) {
      while (const Message call = service().bus().pendingCall()) {
        EXPECT_GT(sd_bus_message_is_method_call(call.get(), nullptr, "servicePeriodic"), 0);
        answer(call);
        ++calls;
      }
      ASSERT_GT(poll(states.data(), states.size(), 60'000), 0);
    }
    const Message done = manager.nextAnswer();
    ASSERT_NE(done, nullptr);
    EXPECT_EQ(sd_bus_message_get_error(done.get()), nullptr);
    EXPECT_GT(calls, 0);
  }
};

TEST_F(PeriodicWork, GoesOnWhateverItIsAnsweredWith) {
  const std::vector<Append> answers = {
      // No dictionary
      test::variant("5"),
      test::variant(5),
      test::dataOf(100),
      test::nestedArrays(5),
      [](sd_bus_message* message) { return sd_bus_message_append(message, "v", "o", "/"); },
      [](sd_bus_message* message) { return sd_bus_message_append(message, "v", "g", "v"); },
      // Another signature
      test::nothing,
      test::info({{keys::amount, 5}}),
      [](sd_bus_message* message) { return sd_bus_message_append(message, "vv", "x", 5, "x", 5); },
      // No amount, or one that nobody can have freed
      reply({}),
      reply({{keys::amount, "5"}}),
      reply({{keys::amount, test::nestedDictionaries(3)}}),
      reply({{keys::amount, -1}}),
      reply({{keys::amount, std::numeric_limits<std::int64_t>::min()}}),
      reply({{keys::amount, std::uint64_t{1} << 63}}),
      reply({{keys::amount, std::numeric_limits<std::uint64_t>::max()}}),
      reply({{keys::amount, std::nan("")}}),
      reply({{keys::amount, std::numeric_limits<double>::infinity()}}),
      reply({{keys::amount, 5}, {"Extra", test::nestedDictionaries(limits::wireDictionaryDepth + 1)}}),
      reply({{keys::amount, 5}, {"Extra", test::dataOf(limits::serviceReplyBytes - 256)}}),
  };
  for (const Append& answer : answers) {
    doAnsweringAlways([&](const Message& call) { service().bus().answer(call, answer); });
  }
}

TEST_F(PeriodicWork, ThatIsAnsweredTwiceGoesOnAfterTheFirst) {
  doAnsweringAlways([&](const Message& call) {
    service().bus().answer(call, reply({{keys::amount, 5}}));
    service().bus().answer(call, reply({{keys::amount, 7}}));
    service().bus().answerWithError(call, "com.example.Error", "and an error");
  });
}

TEST_F(PeriodicWork, ThatIsAnsweredWithAnErrorGoesOn) {
  doAnsweringAlways([&](const Message& call) {
    service().bus().answerWithError(call, "com.example.Error", std::string(10'000, 'e'));
  });
}

TEST_F(PeriodicWork, ThatIsAnsweredWithAMebibyteEndsTheConnection) {
  BusClient manager = serviceManager();
  begin(manager);
  const Message call = service().expect("servicePeriodic");
  service().bus().answer(call, reply({{keys::amount, 5}, {"Extra", test::dataOf(mebibyte)}}));
  EXPECT_EQ(service().bus().nextCall(), nullptr);
}

TEST_F(PeriodicWork, OfServicesThatDieIsForgotten) {
  Service second("com.example.second");
  Service third("com.example.third");
  second.checkIn();
  third.checkIn();
  BusClient manager = serviceManager();
  // It goes on until long after this test.
  begin(manager);
  ASSERT_TRUE(service().bus().hasArrival());
  service().hangUp();
  const Message call = second.expect("servicePeriodic");
  second.hangUp();
  third.sendBytes(test::answerTo(third.expect("servicePeriodic")).substr(0, 20));
  third.hangUp();
}

TEST_F(PeriodicWork, InWhichASignalEndsTheServiceIsForgotten) {
  expectDeathBySignalIn("servicePeriodic", [] {
    BusClient manager = serviceManager();
    begin(manager);
  });
}

}  // namespace
}  // namespace kelvane
