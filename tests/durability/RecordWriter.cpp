// SPDX-License-Identifier: Apache-2.0
// A service and a client that keep the record of recent answers changing until the daemon dies.
#include "tests/durability/RecordWriter.h"

#include "protocols/Keys.h"
#include "support/KelvaneRecentInfo.h"

namespace kelvane::test {

namespace {

constexpr char identifier[] = "com.example.remembered";

}  // namespace

void RecordWriter::begin() {
  service_.emplace(identifier);
  service_->checkIn();
  client_.emplace();
  serving_ = std::thread([this] { serve(); });
  asking_ = std::thread([this] { ask(); });
}

void RecordWriter::join() {
  asking_.join();
  serving_.join();
  client_.reset();
  service_.reset();
}

void RecordWriter::serve() {
  while (const Message call = service_->bus().nextCall()) {
    const bool isQuery = sd_bus_message_is_method_call(call.get(), nullptr, "servicePurgeable") > 0;
    service_->bus().answer(call, isQuery ? reply({{keys::amount, ++given_}}) : reply({}));
  }
}

void RecordWriter::ask() {
  const Append query = info({{keys::volume, volume}, {keys::urgency, 1}});
  for (;;) {
    if (!client_->unset(keys::recentServiceStats).error.empty()) {
      return;
    }
    least_ = given_ + 1;
    // An answer that comes too late for one query may be in the record for the next.
    Value result;
    do {
      if (!client_->send("clientPurgeableSpace", query) || (result = client_->nextResult()).isAbsent()) {
        return;
      }
    } while (result[identifier].uint64Value() != given_);
  }
}

testing::AssertionResult RecordWriter::agreesWith(const Value::Dictionary& state) const {
  const auto found = state.find(keys::recentServiceStats);
  if (found == state.end()) {
    return testing::AssertionSuccess();
  }
  const Data* data = found->second.data();
  const auto record = data != nullptr ? KelvaneRecentInfo::fromArchive(*data) : nullptr;
  if (!record || record->volumes() == nullptr) {
    return testing::AssertionFailure() << "what is stored is no record: " << found->second.description();
  }
  for (const auto& [name, answers] : *record->volumes()) {
    const auto* services = answers.services();
    for (const auto& [service, answer] : services != nullptr ? *services : KelvaneRecentVolumeInfo::Services()) {
      const std::uint64_t amount = answer.amount().uint64Value();
      if (name != volume || service != identifier || amount < least_ || amount > given_) {
        return testing::AssertionFailure() << "the record should tell of " << least_ << " to " << given_ << " but is "
                                           << record->description().description();
      }
    }
  }
  return testing::AssertionSuccess();
}

}  // namespace kelvane::test
