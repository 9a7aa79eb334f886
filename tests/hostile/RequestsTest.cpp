// SPDX-License-Identifier: Apache-2.0
// Requests that do not decode, and such as decode to nonsense.
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <array>
#include <cmath>
#include <limits>
#include <optional>

#include "platform/Limits.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/RawConnection.h"
#include "tests/hostile/WireMessage.h"
#include "tests/linux/testing/Eventually.h"

namespace kelvane {
namespace {

using test::Append;
using test::Client;
using test::Entry;
using test::info;
using test::mebibyte;
using test::nestedArrays;
using test::nestedDictionaries;
using test::purgeOf;
using test::RawConnection;
using test::WireCall;
using testing::HasSubstr;

constexpr char invalidArguments[] = "org.freedesktop.DBus.Error.InvalidArgs";

const std::array<const char*, 7> members = {"clientCheckin", "clientPurgeableSpace", "clientItemizedPurgeableSpace",
                                            "clientPurge",   "clientCancelPurge",    "clientSetState",
                                            "clientGetState"};

/// The same value of any type, in a variant.
template <typename Value>
Append typed(const char* type, Value value) {
  return [=](sd_bus_message* message) { return sd_bus_message_append(message, "v", type, value); };
}

/// So many empty strings, in a variant.
Append strings(std::size_t count) {
  return [count](sd_bus_message* message) {
    sd_bus_message_open_container(message, 'v', "as");
    sd_bus_message_open_container(message, 'a', "s");
    for (std::size_t index = 0; index < count; ++index) {
      sd_bus_message_append(message, "s", "");
    }
    sd_bus_message_close_container(message);
    return sd_bus_message_close_container(message);
  };
}

class ARequest : public test::HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    startDaemon();
  }
  /// A service, for requests that are to be carried out.
  void startService() { service_.emplace("com.example.servant", 8 * mebibyte); }
  void TearDown() override {
    service_.reset();
    HostileTest::TearDown();
  }

  std::optional<test::BehavingService> service_;
};

TEST_F(ARequest, WithAWrongSignatureIsRefused) {
  Client client;
  const std::vector<Append> wrong = {
      test::nothing,
      [](sd_bus_message* message) { return sd_bus_message_append(message, "i", 1); },
      [](sd_bus_message* message) { return sd_bus_message_append(message, "as", 1, "a"); },
      [](sd_bus_message* message) { return sd_bus_message_append(message, "a{is}", 1, 1, "a"); },
      [](sd_bus_message* message) { return sd_bus_message_append(message, "(si)", "a", 1); },
      [](sd_bus_message* message) { return sd_bus_message_append(message, "sss", "a", "b", "c"); },
      [](sd_bus_message* message) { return sd_bus_message_append(message, "a{sv}a{sv}", 0, 0); },
      [](sd_bus_message* message) { return sd_bus_message_append(message, "a{sv}s", 0, "a"); },
  };
  for (const char* member : members) {
    for (const Append& arguments : wrong) {
      EXPECT_EQ(client.call(member, arguments).error, invalidArguments) << member;
    }
  }
  EXPECT_TRUE(client.isServed());
}

TEST_F(ARequest, ForWhatIsNotThereIsRefused) {
  Client client;
  const std::string path(KelvaneClientProtocol::interface.objectPath);
  const std::string interface(KelvaneClientProtocol::interface.name);
  EXPECT_THAT(client.callAt("/", interface, "clientPurge").error, HasSubstr("UnknownObject"));
  EXPECT_THAT(client.callAt(path + "/deeper", interface, "clientPurge").error, HasSubstr("UnknownObject"));
  EXPECT_THAT(client.callAt(path, "com.example.Other", "clientPurge").error, HasSubstr("UnknownInterface"));
  EXPECT_THAT(client.callAt(path, interface, "clientDestroy").error, HasSubstr("UnknownMethod"));
  EXPECT_THAT(client.callAt("/com/tessaly/KelvaneService", "com.tessaly.KelvaneServiceProtocol", "servicePing").error,
              HasSubstr("UnknownObject"));
  EXPECT_THAT(client.callAt("/com/tessaly/KelvanePlatform", "com.tessaly.KelvanePlatform", "runActivity").error,
              HasSubstr("UnknownObject"));
}

TEST_F(ARequest, WithValuesThatNoPropertyListHasIsRefused) {
  Client client;
  const std::vector<Append> values = {
      typed("g", "a{sv}"),
      typed("o", "/com/example"),
      [](sd_bus_message* message) { return sd_bus_message_append(message, "v", "(ii)", 1, 2); },
      [](sd_bus_message* message) { return sd_bus_message_append(message, "v", "a{is}", 1, 1, "a"); },
      [](sd_bus_message* message) { return sd_bus_message_append(message, "v", "h", STDERR_FILENO); },
      nestedDictionaries(limits::wireDictionaryDepth),
      nestedArrays(32),
  };
  for (std::size_t index = 0; index < values.size(); ++index) {
    EXPECT_EQ(client.call("clientPurge", purgeOf(1, {{"Extra", values[index]}})).error, invalidArguments) << index;
  }
  EXPECT_TRUE(client.isServed());
}

TEST_F(ARequest, AsDeepAsCanBeIsCarriedOut) {
  startService();
  Client client;
  const Value result =
      client.purge(purgeOf(mebibyte, {{"Extra", nestedDictionaries(limits::wireDictionaryDepth - 1)}}));
  EXPECT_TRUE(result["Extra"].isDictionary());
  EXPECT_EQ(result[keys::amount].uint64Value(), mebibyte);
}

TEST_F(ARequest, ForAnAmountThatIsNoNumberGetsItsInfoBack) {
  startService();
  Client client;
  const std::vector<Append> amounts = {
      test::variant("1048576"),
      typed("o", "/"),
      test::dataOf(8),
      typed("as", 0),
      nestedDictionaries(1),
      nestedArrays(1),
      [](sd_bus_message* message) { return sd_bus_message_append(message, "v", "(d)", 1e6); }};
  for (const Append& amount : amounts) {
    const Value result = client.purge(purgeOf(0, {{keys::amount, amount}}));
    EXPECT_EQ(result[keys::volume], Value(test::volume));
    EXPECT_FALSE(result.contains(keys::freespaceBegin)) << result.description();
  }
}

TEST_F(ARequest, ForAnyNumberOfBytesEnds) {
  const std::vector<Append> amounts = {
      typed("x", std::int64_t{-1}),
      typed("x", std::numeric_limits<std::int64_t>::min()),
      typed("t", std::numeric_limits<std::uint64_t>::max()),
      typed("d", std::numeric_limits<double>::infinity()),
      typed("d", 1e300),
  };
  for (const Append& amount : amounts) {
    // It gives all that it has, which is less than its share; so the pass is over at once.
    const test::BehavingService service("com.example.servant", mebibyte);
    const Value result = Client().purge(purgeOf(0, {{keys::amount, amount}}));
    EXPECT_EQ(result[keys::amount].uint64Value(), mebibyte) << result.description();
  }
}

TEST_F(ARequest, ForNoBytesWaitsOutItsPass) {
  for (const Append& amount : {typed("d", std::nan("")), typed("d", -1.5)}) {
    const Value result = Client().purge(purgeOf(0, {{keys::amount, amount}}));
    EXPECT_EQ(result[keys::amount], Value(std::uint64_t{0}));
    EXPECT_GE(result[keys::elapsedTime].doubleValue(), 1.0);
  }
}

TEST_F(ARequest, MayHaveAnyTimeOut) {
  startService();
  Client client;
  const std::vector<Append> timeouts = {
      typed("x", std::int64_t{-5}),
      typed("d", std::nan("")),
      typed("d", -1e300),
      typed("d", std::numeric_limits<double>::infinity()),
      typed("t", std::numeric_limits<std::uint64_t>::max()),
      test::variant("600"),
      test::variant(true),
      test::dataOf(4),
      nestedArrays(3),
  };
  for (const Append& timeout : timeouts) {
    const Value result = client.purge(purgeOf(4096, {{keys::purgeTimeout, timeout}}));
    EXPECT_EQ(result[keys::amount].uint64Value(), 4096U) << result.description();
  }
}

TEST_F(ARequest, MayHaveAnyUrgency) {
  startService();
  const auto lastPassOf = [](const Append& urgency) {
    const Value result = Client().purge(purgeOf(4096, {{keys::urgency, urgency}}));
    EXPECT_EQ(result[keys::amount].uint64Value(), 4096U) << result.description();
    int last = 0;
    while (result.contains("KELVANE_URGENCY_" + std::to_string(last + 1) + "_OPERATION_INFO")) {
      ++last;
    }
    return last;
  };
  EXPECT_EQ(lastPassOf(typed("x", (std::int64_t{1} << 32) + 2)), 2);
  EXPECT_EQ(lastPassOf(typed("t", (std::uint64_t{1} << 32) + 1)), 1);
  EXPECT_EQ(lastPassOf(typed("d", 1.9)), 1);
  EXPECT_EQ(lastPassOf(test::variant(true)), 1);
}

TEST_F(ARequest, WithAnUrgencyOutOfRangeHasTheUsualOne) {
  startService();
  for (const Append& urgency : {typed("x", std::int64_t{-1}), test::variant("2")}) {
    const Value result = Client().purge(purgeOf(4096, {{keys::urgency, urgency}}));
    EXPECT_TRUE(result.contains("KELVANE_URGENCY_3_OPERATION_INFO")) << result.description();
    EXPECT_FALSE(result.contains("KELVANE_URGENCY_4_OPERATION_INFO"));
  }
}

TEST_F(ARequest, ForWhatIsNoVolumeIsAnsweredWithNothing) {
  Client client;
  const std::vector<Append> volumes = {
      typed("i", 7),
      typed("o", "/"),
      test::dataOf(100),
      nestedDictionaries(3),
      test::variant(""),
      test::variant("volumes/data"),
      test::variant("/volumes/data/"),
      test::variant("/volumes/data/no-such-directory"),
      test::variant("/volumes/../volumes/data"),
      test::variant("/proc"),
      test::variant("/dev/null"),
      test::variant("%s%n%@"),
      test::variant(std::string(mebibyte, '/')),
  };
  for (std::size_t index = 0; index < volumes.size(); ++index) {
    const auto answer = client.call("clientPurge", purgeOf(1, {{keys::volume, volumes[index]}}));
    EXPECT_EQ(answer.error, "");
    EXPECT_TRUE(client.purge(purgeOf(1, {{keys::volume, volumes[index]}})).isAbsent()) << index;
  }
  EXPECT_TRUE(client.purge(info({})).isAbsent());
}

TEST_F(ARequest, MaySayWhatTheDaemonSaysInItsResults) {
  startService();
  std::vector<Entry> entries = {{keys::freespaceBegin, typed("t", std::uint64_t{0})},
                                {keys::freespaceEnd, "end"},
                                {keys::operationCancelled, true},
                                {keys::amountReported, nestedArrays(2)},
                                {keys::elapsedTime, std::nan("")},
                                {keys::error, "error"},
                                {keys::token, nestedDictionaries(3)},
                                {"KELVANE_URGENCY_1_OPERATION_INFO", nestedDictionaries(5)},
                                {"", ""},
                                {std::string(100'000, 'k'), 1}};
  const Value result = Client().purge(purgeOf(4096, entries));
  EXPECT_EQ(result[keys::amount].uint64Value(), 4096U) << result.description();
  EXPECT_GT(result[keys::freespaceBegin].uint64Value(), 0U);
}

TEST_F(ARequest, MayHoldManyEntriesAndTheSameTwice) {
  startService();
  std::vector<Entry> entries;
  for (int number = 0; number < 10'000; ++number) {
    entries.emplace_back("Key" + std::to_string(number % 5'000), number);
  }
  const Value result = Client().purge(purgeOf(4096, entries));
  EXPECT_EQ(result[keys::amount].uint64Value(), 4096U);
  EXPECT_EQ(result["Key1"], Value(5'001));
}

TEST_F(ARequest, ForADescriptorThatDidNotComeWithItIsNotCarriedOut) {
  test::WireBytes body;
  body.string("com.example.hostile");
  // The first descriptor, and no entries.
  body.number(0);
  body.number(0);
  body.align(8);
  WireCall call{.member = "clientCheckin", .signature = "sha{sv}", .body = body.bytes()};
  RawConnection connection;
  ASSERT_TRUE(connection.shakeHands());
  ASSERT_TRUE(connection.send(call.bytes()));
  EXPECT_THAT(connection.receive(), HasSubstr("no descriptor that came with the message"));
  // The count is not true, so this is no message at all: it is passed over, and what follows is served.
  call.descriptors = 3;
  ASSERT_TRUE(connection.send(call.bytes()));
  call.descriptors = 0;
  ASSERT_TRUE(connection.send(call.bytes()));
  EXPECT_THAT(connection.receive(), HasSubstr("no descriptor that came with the message"));
}

TEST_F(ARequest, MayBringADescriptorThatNobodyAskedFor) {
  Client client;
  ASSERT_TRUE(client.isServed());
  const std::size_t before = daemon_.openDescriptors();
  for (int call = 0; call < 20; ++call) {
    EXPECT_EQ(client
                  .call("clientCancelPurge",
                        [](sd_bus_message* message) { return sd_bus_message_append(message, "h", STDERR_FILENO); })
                  .error,
              invalidArguments);
  }
  EXPECT_TRUE(test::eventually([this, before] { return daemon_.openDescriptors() <= before + test::ownDescriptors; }));
}

TEST_F(ARequest, EndsItsConnectionWhenItBringsManyDescriptors) {
  const std::size_t before = daemon_.openDescriptors();
  for (int call = 0; call < 20; ++call) {
    Client client;
    ASSERT_TRUE(client.isServed());
    EXPECT_NE(client
                  .call("clientCancelPurge",
                        [](sd_bus_message* message) {
                          int result = 0;
                          for (int descriptor = 0; descriptor < 200; ++descriptor) {
                            result = std::min(result, sd_bus_message_append(message, "h", STDERR_FILENO));
                          }
                          return result;
                        })
                  .error,
              "");
    EXPECT_FALSE(client.isServed());
  }
  EXPECT_TRUE(test::eventually([this, before] { return daemon_.openDescriptors() <= before + test::ownDescriptors; }));
}

TEST_F(ARequest, ToCheckInWithValuesOfOtherTypesIsTakenAsItIs) {
  const std::vector<Append> values = {
      test::variant("yes"), typed("x", std::int64_t{-1}), typed("d", std::nan("")), nestedDictionaries(18),
      nestedArrays(5),      test::dataOf(10'000),         typed("o", "/")};
  for (const Append& value : values) {
    test::Service service("com.example.hostile");
    service.beginCheckIn(info({{keys::purge, value}, {keys::periodic, value}, {keys::notifications, value}}));
    service.bus().answer(service.expect("servicePing"));
    EXPECT_TRUE(service.endCheckIn().contains(keys::id));
  }
}

TEST_F(ARequest, ToCheckInMayUseAnyIdentifier) {
  const std::vector<std::string> identifiers = {"",
                                                "/",
                                                "a/b",
                                                "../../etc/passwd",
                                                ".hidden",
                                                std::string(300, 'x'),
                                                std::string(limits::serviceIdentifierBytes, 'y'),
                                                "line\nbreak\x01",
                                                "%s%n%@",
                                                "a\"b\\{}",
                                                "com.tessaly.kelvane"};
  for (const std::string& identifier : identifiers) {
    test::Service service(identifier);
    service.checkIn();
    Client client;
    ASSERT_TRUE(client.send("clientPurge", purgeOf(mebibyte, {test::untilAnswered()})));
    const auto call = service.expect("servicePurge");
    service.bus().answer(call, test::reply({{keys::amount, 1}}));
    EXPECT_EQ(client.nextResult()[keys::amountReported], Value(1)) << identifier;
  }
}

TEST_F(ARequest, ToCheckInMayLeaveNoMoreThanALimitWithTheDaemon) {
  const std::size_t most = limits::notificationNamesBytes;
  const std::vector<std::pair<std::string, Append>> tooMuch = {
      {std::string(limits::serviceIdentifierBytes + 1, 'y'), test::purging()},
      {"com.example.hostile", info({{keys::notifications, test::dataOf(most + 1)}})},
      {"com.example.hostile", info({{keys::notifications, strings(most / limits::stateElementBytes + 1)}})}};
  for (const auto& [identifier, values] : tooMuch) {
    test::Service service(identifier);
    service.beginCheckIn(values);
    EXPECT_EQ(service.checkInError(), "org.freedesktop.DBus.Error.LimitsExceeded");
  }
  test::Service service("com.example.hostile");
  service.beginCheckIn(info({{keys::notifications, strings(most / limits::stateElementBytes)}}));
  service.bus().answer(service.expect("servicePing"));
  EXPECT_TRUE(service.endCheckIn().contains(keys::id));
}

TEST_F(ARequest, WithANulInAStringIsNotCarriedOut) {
  test::WireBytes key;
  key.string(std::string("a\0b", 3));
  RawConnection connection;
  ASSERT_TRUE(connection.shakeHands());
  ASSERT_TRUE(connection.send(WireCall{"clientGetState", "s", key.bytes()}.bytes()));
  EXPECT_THAT(connection.receive(), HasSubstr(invalidArguments));
}

}  // namespace
}  // namespace kelvane
