// SPDX-License-Identifier: Apache-2.0
// A client that changes state until the daemon dies, and knows what must be left of it.
#include "tests/durability/StateWriter.h"

#include <algorithm>

namespace kelvane::test {

namespace {

constexpr std::uint64_t keyCount = 6;
constexpr std::uint64_t mostAtOnce = 8;
/// More of a value tells no more.
constexpr std::size_t shownBytes = 40;

std::string shown(const std::map<std::string, std::string>& entries, const std::string& key) {
  const auto found = entries.find(key);
  return found == entries.end()
             ? "none"
             : found->second.substr(0, shownBytes) + " (" + std::to_string(found->second.size()) + " bytes)";
}

}  // namespace

StateWriter::StateWriter(std::string name, std::uint64_t number, std::size_t most, Progress& progress)
    : name_(std::move(name)), most_(most), random_(number), progress_(progress) {}

void StateWriter::begin() {
  client_.emplace();
  thread_ = std::thread([this] { change(); });
}

void StateWriter::join() {
  thread_.join();
  client_.reset();
  mayFail_ = false;
}

void StateWriter::change() {
  const std::size_t atOnce = 1 + random_.upTo(mostAtOnce - 1);
  for (;;) {
    while (changes_.size() - answers_ < atOnce) {
      if (!sendNext()) {
        return;
      }
    }
    if (!takeAnswer()) {
      return;
    }
  }
}

bool StateWriter::sendNext() {
  // It counts as sent whatever becomes of the connection meanwhile.
  Change& next = changes_.emplace_back(Change{name_ + "." + std::to_string(random_.upTo(keyCount - 1)), {}});
  if (!random_.oneIn(4)) {
    next.value = nextValue();
  }
  const bool isSent = client_->send("clientSetState", setting(next.key, next.value ? variant(*next.value) : none));
  next.cookie = client_->lastCookie();
  return isSent;
}

bool StateWriter::takeAnswer() {
  const Message answer = client_->nextAnswer();
  if (!answer) {
    return false;
  }
  ++answers_;
  if (const sd_bus_error* error = sd_bus_message_get_error(answer.get())) {
    if (!mayFail_) {
      ADD_FAILURE() << name_ << " was answered with " << error->name << ": " << error->message;
      progress_.giveUp();
    }
    return mayFail_;
  }
  std::uint64_t cookie = 0;
  EXPECT_GE(sd_bus_message_get_reply_cookie(answer.get(), &cookie), 0);
  const auto change =
      std::find_if(changes_.begin(), changes_.end(), [&](const Change& sent) { return sent.cookie == cookie; });
  EXPECT_NE(change, changes_.end());
  acknowledgedChanges_ = std::max(acknowledgedChanges_, static_cast<std::size_t>(change - changes_.begin()) + 1);
  ++acknowledged_;
  progress_.add();
  return true;
}

/// Not the same twice, nor in part.
std::string StateWriter::nextValue() {
  const std::string unit = name_ + ":" + std::to_string(++numberOfValue_) + ";";
  const std::size_t size = random_.oneIn(50)  ? most_ - random_.upTo(most_ / 4)
                           : random_.oneIn(5) ? random_.upTo(std::min<std::size_t>(most_, 8192))
                                              : random_.upTo(100);
  largest_ = std::max(largest_, size);
  std::string value = unit;
  while (value.size() < size) {
    value += unit;
  }
  return value;
}

void StateWriter::apply(const Change& change, Entries& entries) {
  if (change.value) {
    entries[change.key] = *change.value;
  } else {
    entries.erase(change.key);
  }
}

testing::AssertionResult StateWriter::agreesWith(const Value::Dictionary& state) {
  Entries found;
  for (const auto& [key, value] : state) {
    if (key.starts_with(name_ + ".")) {
      found[key] = value.isString() ? *value.string() : value.description();
    }
  }
  Entries expected = entries_;
  for (std::size_t index = 0; index < acknowledgedChanges_; ++index) {
    apply(changes_[index], expected);
  }
  const Entries acknowledged = expected;
  for (std::size_t index = acknowledgedChanges_; found != expected && index < changes_.size(); ++index) {
    apply(changes_[index], expected);
  }
  if (found == expected) {
    entries_ = std::move(found);
    changes_.clear();
    acknowledgedChanges_ = 0;
    answers_ = 0;
    return testing::AssertionSuccess();
  }
  auto failure = testing::AssertionFailure()
                 << name_ << " has sent " << changes_.size() << " changes, of which " << acknowledgedChanges_
                 << " were acknowledged, and finds what none of them left";
  for (std::uint64_t number = 0; number < keyCount; ++number) {
    const std::string key = name_ + "." + std::to_string(number);
    failure << "\n" << key << ": " << shown(found, key) << ", last acknowledged " << shown(acknowledged, key);
  }
  for (std::size_t index = acknowledgedChanges_; index < changes_.size(); ++index) {
    const Change& change = changes_[index];
    failure << "\n" << change.key << " sent later: " << (change.value ? change.value->substr(0, shownBytes) : "none");
  }
  return failure;
}

}  // namespace kelvane::test
