// SPDX-License-Identifier: Apache-2.0
// One client of many, which asks for everything a client can ask for.
#include "tests/load/LoadClient.h"

#include <utility>

#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/Info.h"
#include "tests/load/Arguments.h"

namespace kelvane::test {

namespace {

constexpr unsigned keysOfAClient = 4;
/// Of the test's volume.
constexpr std::uint64_t volumeBytes = 16 * mebibyte;

Append queryOf(unsigned urgency) {
  return info({{keys::volume, volume}, {keys::urgency, urgency}});
}

}  // namespace

LoadClient::LoadClient(int number, bool hasService, Load& load)
    : load_(load),
      random_(static_cast<unsigned>(number) + 1),
      service_(hasService ? std::make_optional<CachingService>(identifier(number), capacity, load.ledger,
                                                               Ledger::accounts - 1 - static_cast<unsigned>(number) / 4,
                                                               static_cast<unsigned>(number) + 1)
                          : std::nullopt),
      requester_(identifier(number), service_ ? &*service_ : nullptr, load.hasFailed) {
  for (unsigned key = 0; key < keysOfAClient; ++key) {
    // Where nothing is set there may still be what the daemon had before.
    const std::string name = requester_.name() + "." + std::to_string(key);
    state_[name] = Value();
    requester_.send("clientSetState", stateOf(Value(), name), Requester::nothingIn());
  }
}

void LoadClient::run(std::chrono::steady_clock::time_point end) {
  while (std::chrono::steady_clock::now() < end && !requester_.hasFailed()) {
    step();
    requester_.await(pick(4));
  }
  requester_.await(0);
}

void LoadClient::step() {
  const unsigned kind = pick(100);
  if (kind < 28) {
    setState();
  } else if (kind < 53) {
    getState();
  } else if (kind < 75) {
    query();
  } else if (kind < 83) {
    cancel();
  } else if (kind < 88) {
    purge();
  } else if (kind < 95) {
    checkIn();
  } else if (kind < 96) {
    checkInAsDescribed();
  } else if (kind < 97) {
    getWholeState();
  } else if (kind < 98) {
    changeSharedState();
  } else {
    blunder();
  }
}

void LoadClient::query() {
  const unsigned urgency = pick(20) == 0 ? 3 : 1 + pick(2);
  requester_.send(pick(4) == 0 ? "clientItemizedPurgeableSpace" : "clientPurgeableSpace", queryOf(urgency),
                  Requester::value([this](const Value& result) { return checkQuery(result); }));
}

std::string LoadClient::checkQuery(const Value& result) const {
  if (!result.isDictionary() || result[keys::volume] != Value(volume)) {
    return "no answer for the volume, " + result.description();
  }
  std::int64_t sum = 0;
  for (const auto& [key, value] : *result.dictionary()) {
    if (key == keys::volume || key == keys::totalAvailable) {
      continue;
    }
    const auto service = load_.capacities.find(key);
    if (service == load_.capacities.end() || !value.isNumber() || value.uint64Value() > service->second) {
      return "too much for " + key + ", " + result.description();
    }
    sum += value.int64Value();
  }
  load_.queriesThatCounted += sum > 0 ? 1 : 0;
  return result[keys::totalAvailable] == Value(sum) ? "" : "no sum, " + result.description();
}

void LoadClient::purge() {
  const std::uint64_t asked = 16 * 1024 * (1 + pick(4));
  std::vector<Entry> more = {{keys::urgencyLimit, pick(10) == 0 ? 2 : 1}};
  if (pick(2) == 0) {
    more.emplace_back(keys::token, requester_.name());
  }
  const std::uint64_t freedBefore = load_.ledger.atLeastFreed();
  sendPurge(purgeOf(asked, std::move(more)),
            Requester::value([this, freedBefore](const Value& result) { return checkPurge(result, freedBefore); }));
}

std::string LoadClient::checkPurge(const Value& result, std::uint64_t freedBefore) const {
  const std::uint64_t freed = load_.ledger.atMostFreed() - freedBefore;
  const Value amount = result[keys::amount];
  if (!amount.isNumber() || amount.uint64Value() > freed) {
    return "more than the " + std::to_string(freed) + " bytes that were freed meanwhile, " + result.description();
  }
  load_.purgesThatFreed += amount.uint64Value() > 0 ? 1 : 0;
  if (result.dictionary()->size() == 2 && result.contains(keys::elapsedTime)) {
    // The answer of one service, which was late and came between the end of the purge and its delivery.
    return "";
  }
  const bool isWhole = result[keys::volume] == Value(volume) && result[keys::freespaceBegin].isNumber() &&
                       result[keys::freespaceEnd].isNumber() && result[keys::elapsedTime].isDouble() &&
                       result["KELVANE_URGENCY_1_OPERATION_INFO"].isDictionary();
  if (!isWhole || result[keys::freespaceBegin].uint64Value() > volumeBytes ||
      result[keys::freespaceEnd].uint64Value() > volumeBytes) {
    return "no whole result, " + result.description();
  }
  return result[keys::amountReported].isNumber() && result[keys::amountReported].uint64Value() <= freed
             ? ""
             : "more reported than was freed, " + result.description();
}

/// With nobody allowed to send another, it is left out.
void LoadClient::sendPurge(const Append& arguments, Requester::Check check) {
  if (load_.purges.take()) {
    requester_.send("clientPurge", arguments, [this, check = std::move(check)](const Message& answer) {
      load_.purges.giveBack();
      return check(answer);
    });
  }
}

void LoadClient::sendLong(const std::string& member, const Append& arguments, Requester::Check check) {
  if (load_.longMessages.take()) {
    requester_.send(member, arguments, [this, check = std::move(check)](const Message& answer) {
      load_.longMessages.giveBack();
      return check(answer);
    });
  }
}

void LoadClient::cancel() {
  // Perhaps of a purge that is under way.
  requester_.send("clientCancelPurge", info({{keys::token, identifier(static_cast<int>(pick(64)))}}),
                  Requester::nothingIn());
}

}  // namespace kelvane::test
