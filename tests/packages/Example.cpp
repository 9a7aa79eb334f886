// SPDX-License-Identifier: Apache-2.0
// A program that uses all that the installed library has for others.
#include <cstdio>
#include <map>
#include <memory>

#include "platform/MutableDictionary.h"
#include "platform/Value.h"
#include "protocols/Keys.h"
#include "support/KelvaneClient.h"
#include "support/KelvaneService.h"

namespace {

using kelvane::KelvaneClientResult;
using kelvane::KelvaneService;
using kelvane::MutableDictionary;
using kelvane::SpaceRequest;
using kelvane::Value;

/// Does what a service does that overrides nothing.
class Service : public KelvaneService {
 public:
  Service() : KelvaneService({.identifier = "com.example.service"}) {}

  bool doesNothing() {
    const SpaceRequest request = {.urgency = 1, .volume = "/", .amount = 1, .info = {}};
    cancelPurge();
    notify("name", true);
    return !purgeable(request, {}) && purge(request, {}) == 0 && periodic(request, {}) == 0 &&
           callback(true).isAbsent();
  }
};

bool servesUntilStopped() {
  Service service;
  service.stop();
  return service.doesNothing() && !service.run();
}

bool valuesAreValues() {
  const Value::Dictionary entries = {
      {"string", std::string("text")},
      {"view", std::string_view("text")},
      {"literal", "text"},
      {"date", kelvane::Date{1}},
      {"data", kelvane::Data{1}},
      {"array", Value::Array{1, 2}},
      {"number", -1},
  };
  const MutableDictionary dictionary{Value(entries)};
  dictionary.set(kelvane::keys::amount, 1U);
  dictionary.remove("number");
  dictionary.nested("nested").set("key", 0.5);
  const Value live(dictionary);
  const Value shared(std::make_shared<const Value::Dictionary>(entries));
  return live.isDictionary() && live.mutableDictionary() != nullptr && live.dictionary()->size() == 8 &&
         live == Value(dictionary.copied()) && Value(*dictionary.snapshot()) == live &&
         dictionary["string"] == shared["literal"] && *shared["view"].string() == "text" && shared["date"].date() &&
         shared["data"].data()->size() == 1 && shared["array"].array()->size() == 2 &&
         shared["number"].int32Value() == -1 && shared["number"].int64Value() == -1 &&
         shared["number"].uint64Value() == ~std::uint64_t{0} && shared["number"].doubleValue() == -1 &&
         shared["number"].boolValue() && shared["number"].description() == "-1" &&
         MutableDictionary().snapshot()->empty();
}

/// All ways to ask, and none that is answered.
bool nobodyAnswers() {
  const kelvane::KelvaneClient client;
  const auto ignore = [](const KelvaneClientResult&) {};
  client.purge({}, ignore);
  client.purgeableSpace({}, ignore);
  client.itemizedPurgeableSpace({}, ignore);
  client.cancelPurge({}, ignore);
  client.setState({}, "key", ignore);
  client.getState("key", ignore);
  client.disconnect();
  for (const KelvaneClientResult& result :
       {client.purge({}), client.purgeableSpace({}), client.itemizedPurgeableSpace({}), client.cancelPurge({}),
        client.setState({}, "key"), client.getState("key")}) {
    if (result.status == KelvaneClientResult::Status::Answered) {
      return false;
    }
  }
  return true;
}

}  // namespace

int main() {
  return std::puts(servesUntilStopped() && valuesAreValues() && nobodyAnswers() ? "good" : "bad") < 0;
}
