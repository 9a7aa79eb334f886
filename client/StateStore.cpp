// SPDX-License-Identifier: Apache-2.0
// The persistent state store: one dictionary in the preferences suite.
#include "client/ClientInterface.h"
#include "client/StateLimits.h"
#include "support/KelvaneLog.h"

namespace kelvane {

namespace {

using StateError = KelvaneExportedObject::StateError;

std::optional<StateError> whyNotWritten(const PreferencesSuite::Outcome& outcome) {
  return outcome ? std::nullopt : std::optional(StateError{StateError::Cause::NotWritten, outcome.failure().text()});
}

}  // namespace

void ClientInterface::clientSetState(const Value& value, const std::string& key, SetReply replyBlock) {
  defaults_queue().async([this, value, key, replyBlock = std::move(replyBlock)] {
    _clientSetState(value, key, [this, &replyBlock](const std::optional<StateError>& error) {
      if (error || !userDefaults_) {
        replyBlock(error);
        return;
      }
      // The client learns of it when a crash can no longer undo it; others need not wait that long for their turn.
      userDefaults_->whenDurable(
          [replyBlock](const PreferencesSuite::Outcome& outcome) { replyBlock(whyNotWritten(outcome)); });
    });
  });
}

void ClientInterface::clientGetState(const Value& key, ValueReply replyBlock) {
  defaults_queue().async([this, key, replyBlock = std::move(replyBlock)] { _clientGetState(key, replyBlock); });
}

void ClientInterface::_clientSetState(const Value& value, const std::string& key, const SetReply& replyBlock) {
  defaults_queue().assertCurrent();
  const Value before = userDefaults_ ? userDefaults_->entry(keys::userDefaults, key).value_or(Value()) : Value();
  const StateTotals totals = stateTotals_.with(key, before, value);
  if (const auto error = whyNotStored(totals, value, key)) {
    replyBlock(error);
    return;
  }
  if (userDefaults_) {
    userDefaults_->setEntry(keys::userDefaults, key, value);
    stateTotals_ = totals;
  }
  if (key == keys::cacheEnabled) {
    notifyRecipients(key, value);
  }
  replyBlock({});
}

void ClientInterface::_clientGetState(const Value& key, const ValueReply& replyBlock) {
  constexpr char name[] = "-[Kelvane _clientGetState:replyBlock:]";
  KELVANE_TRACE("%s ENTRY", name);
  defaults_queue().assertCurrent();
  Value value;
  if (!key.isString()) {
    KELVANE_ERROR("%s key is not an OQString: %@", name, key);
  } else {
    value = stateValue(*key.string());
  }
  replyBlock(value);
  KELVANE_TRACE("%s EXIT", name);
}

void ClientInterface::clientSetStateSync(const StateObject& value, const std::string& key) {
  constexpr char name[] = "-[Kelvane clientSetStateSync:key:]";
  defaults_queue().assertCurrent();
  const auto* object = std::get_if<std::shared_ptr<KelvaneRecentInfo>>(&value);
  const std::shared_ptr<KelvaneRecentInfo> record = object != nullptr ? *object : nullptr;
  Value plain = object == nullptr ? std::get<Value>(value) : Value();
  if (record) {
    std::optional<Data> archive = record->archive();
    if (!archive) {
      KELVANE_ERROR("%s unable to archive the value of %@", name, key);
      return;
    }
    plain = *std::move(archive);
  }
  // Answered before it returns, as it is called on the queue that it needs: nothing to wait for, and no wait to fail.
  _clientSetState(plain, key, [&](const std::optional<StateError>& error) {
    defaults_queue().assertCurrent();
    if (error) {
      KELVANE_ERROR("%s unable to store the value of %@: %@", name, key, error->text);
    } else if (record) {
      rememberedArchive_ = {plain, record, record->changes()};
    }
  });
}

StateObject ClientInterface::clientGetStateSync(const Value& key) {
  constexpr char name[] = "-[Kelvane clientGetStateSync:]";
  KELVANE_TRACE("%s ENTRY", name);
  defaults_queue().assertCurrent();
  KELVANE_TRACE("%s %d", name, 619);
  StateObject kept;
  // Answered before it returns, as above.
  _clientGetState(key, [&](const Value& value) {
    defaults_queue().assertCurrent();
    kept = value.isData() ? StateObject(decoded(value)) : StateObject(value);
  });
  KELVANE_TRACE("%s EXIT", name);
  return kept;
}

void ClientInterface::handOverState() {
  if (userDefaults_) {
    userDefaults_->handOver();
  }
}

void ClientInterface::setUserDefaults(std::unique_ptr<PreferencesSuite> suite) {
  userDefaults_ = std::move(suite);
  const auto state = (*userDefaults_)[keys::userDefaults].dictionary();
  stateTotals_ = state ? StateTotals(*state) : StateTotals();
}

/// Why the value may not be stored under the key, with which the state would come to so much.
std::optional<ClientInterface::StateError> ClientInterface::whyNotStored(const StateTotals& totals, const Value& value,
                                                                         const std::string& key) {
  if (value.isAbsent()) {
    return std::nullopt;
  }
  if (key == keys::recentServiceStats) {
    // Its room is there whatever else is stored.
    return whyNoRecord(value);
  }
  if (const auto error = whyUnstorable(value)) {
    return error;
  }
  const auto room = totals.room();
  if (const auto* error = std::get_if<StateError>(&room)) {
    return *error;
  }
  return userDefaults_ ? whyNotWritten(userDefaults_->makeRoom(std::get<std::size_t>(room))) : std::nullopt;
}

Value ClientInterface::stateValue(const std::string& key) const {
  constexpr char name[] = "-[Kelvane _clientGetState:replyBlock:]";
  const Value standard = default_values_[key];
  // This process is the suite's only writer, so what is in memory is what a look at the disk would give, or newer.
  const auto value = userDefaults_ ? userDefaults_->entry(keys::userDefaults, key) : std::nullopt;
  if (!value) {
    const Value state = userDefaults_ ? (*userDefaults_)[keys::userDefaults] : Value();
    if (state.isAbsent()) {
      return standard;
    }
    KELVANE_ERROR("%s persistent_state is not a dictionary: %@", name, state);
    return {};
  }
  if (key == keys::userDefaults) {
    Value::Dictionary filled = *(*userDefaults_)[keys::userDefaults].dictionary();
    filled.insert(default_values_.dictionary()->begin(), default_values_.dictionary()->end());
    return filled;
  }
  if (value->isAbsent() && !standard.isAbsent()) {
    KELVANE_TRACE("%s using default value: %@ for key: %@", name, standard, key);
    return standard;
  }
  return *value;
}

std::shared_ptr<KelvaneRecentInfo> ClientInterface::decoded(const Value& data) {
  RememberedArchive& remembered = rememberedArchive_;
  const bool isKnown = remembered.data.data() == data.data();
  if (isKnown && !remembered.record) {
    return nullptr;
  }
  // Whoever still holds the record, or has changed it and not stored it, must not be seen to by others.
  if (!isKnown || remembered.record.use_count() > 1 || remembered.record->changes() != remembered.changes) {
    remembered = {data, KelvaneRecentInfo::fromArchive(*data.data()), 0};
    remembered.changes = remembered.record ? remembered.record->changes() : 0;
  }
  return remembered.record;
}

}  // namespace kelvane
