// SPDX-License-Identifier: Apache-2.0
// What the settings hold peers to that do not behave.
#include "tests/hostile/HostileTest.h"

namespace kelvane {
namespace {

using test::Client;
using test::Message;
using test::Service;

class TheSettings : public test::HostileTest {
 protected:
  void startWith(const std::string& settings) {
    test::writeFile(test::configuration, "{ " + settings + " }");
    startDaemon();
  }
};

TEST_F(TheSettings, CutASilentServiceOffThatDoesNotAnswerItsPing) {
  startWith("PingLimit = 5;");
  Service silent("com.example.silent");
  silent.beginCheckIn();
  const Message ping = silent.expect("servicePing");
  EXPECT_TRUE(Client().isServed());
  EXPECT_FALSE(silent.bus().nextCall()) << "it is still connected";
  EXPECT_TRUE(silent.endCheckIn().isDictionary());
  EXPECT_TRUE(eventuallyLogs("com.example.silent has not answered its ping"));
}

TEST_F(TheSettings, HaveNobodyWaitForAServiceThatDiesBeforeItsPong) {
  startWith("PingLimit = 3600;");
  Service mortal("com.example.mortal");
  mortal.beginCheckIn();
  const Message ping = mortal.expect("servicePing");
  mortal.hangUp();
  EXPECT_TRUE(Client().isServed());
}

}  // namespace
}  // namespace kelvane
