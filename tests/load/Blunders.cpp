// SPDX-License-Identifier: Apache-2.0
// What a client of many asks for that it cannot have.
#include "platform/Limits.h"
#include "protocols/Keys.h"
#include "tests/load/Arguments.h"
#include "tests/load/LoadClient.h"

namespace kelvane::test {

namespace {

constexpr char invalidArguments[] = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr char limitsExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr char unknownMethod[] = "org.freedesktop.DBus.Error.UnknownMethod";

/// Of a volume that is none.
Append elsewhere() {
  return purgeOf(1, {{keys::volume, "/proc/none"}});
}

/// An array that holds none.
int appendArrayOfNone(sd_bus_message* message) {
  return sd_bus_message_append(message, "v", "av", 1, "o", "/");
}

}  // namespace

void LoadClient::blunder() {
  const std::string key = ownKey();
  switch (pick(8)) {
    case 0:
      return requester_.send("clientPurgeableSpace", elsewhere(), Requester::equal(Value()));
    case 1:
      return sendPurge(elsewhere(), Requester::equal(Value()));
    case 2:
      // Its info comes back.
      return sendPurge(info({{keys::volume, volume}, {keys::amount, "much"}}),
                       Requester::equal(Value::Dictionary{{keys::volume, volume}, {keys::amount, "much"}}));
    case 3:
      return expectError("clientDestroy", nothing, unknownMethod);
    case 4:
      return expectError("clientSetState", keyOf(key), invalidArguments);
    case 5:
      return expectError("clientSetState", stateOf(appendArrayOfNone, key), invalidArguments);
    case 6:
      return expectError("clientSetState", stateOf(nestedDictionaries(limits::stateDictionaryDepth + 1), key),
                         limitsExceeded);
    default:
      return sendLong("clientSetState", stateOf(dataOf(limits::stateValueBytes + 1), key),
                      countedError(limitsExceeded));
  }
}

void LoadClient::expectError(const std::string& member, const Append& arguments, const std::string& errorName) {
  requester_.send(member, arguments, countedError(errorName));
}

Requester::Check LoadClient::countedError(const std::string& errorName) {
  return [this, isRight = Requester::error(errorName)](const Message& answer) {
    ++load_.errors;
    return isRight(answer);
  };
}

}  // namespace kelvane::test
