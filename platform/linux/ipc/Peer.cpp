// SPDX-License-Identifier: Apache-2.0
// What entitlement rules ask about a peer.
#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>

#include "platform/linux/ipc/ControlGroup.h"
#include "platform/linux/ipc/PeerState.h"
#include "platform/linux/runtime/BlockedScope.h"
#include "platform/linux/volumes/PathWalk.h"

namespace kelvane::ipc {

namespace {

std::optional<unsigned> number(std::string_view text) {
  unsigned value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool isNumber = error == std::errc() && end == text.data() + text.size();
  return isNumber ? std::optional(value) : std::nullopt;
}

/// Looks a name up with getpwnam_r or getgrnam_r, which may ask the network.
template <typename Entry, typename LookUp>
std::optional<Entry> entryOf(std::string_view name, LookUp lookUp, std::vector<char>& memory) {
  const runtime::BlockedScope blocked;
  const std::string text(name);
  for (memory.resize(1024); memory.size() <= 1024 * 1024; memory.resize(memory.size() * 2)) {
    Entry entry{};
    Entry* found = nullptr;
    const int error = lookUp(text.c_str(), &entry, memory.data(), memory.size(), &found);
    if (error != ERANGE) {
      return error == 0 && found != nullptr ? std::optional(entry) : std::nullopt;
    }
  }
  return std::nullopt;
}

/// The numbers of users and groups by name. They are looked up at every request of every client, so an answer stands
/// for some seconds; whoever is not found is looked up again each time.
template <typename Number, typename Entry>
class KnownNumbers {
 public:
  using LookUp = int (*)(const char*, Entry*, char*, std::size_t, Entry**);
  KnownNumbers(LookUp lookUp, Number Entry::*number) : lookUp_(lookUp), number_(number) {}

  std::optional<Number> of(std::string_view name) {
    const auto now = std::chrono::steady_clock::now();
    {
      const std::lock_guard lock(mutex_);
      const auto known = known_.find(name);
      if (known != known_.end() && now - known->second.since < longestAge) {
        return known->second.number;
      }
    }
    std::vector<char> memory;
    const auto entry = entryOf<Entry>(name, lookUp_, memory);
    const std::lock_guard lock(mutex_);
    if (!entry) {
      known_.erase(std::string(name));
      return std::nullopt;
    }
    return known_.insert_or_assign(std::string(name), Known{(*entry).*number_, now}).first->second.number;
  }

 private:
  static constexpr std::chrono::seconds longestAge{5};
  struct Known {
    Number number;
    std::chrono::steady_clock::time_point since;
  };

  const LookUp lookUp_;
  Number Entry::*const number_;
  std::mutex mutex_;
  /// Names come from rules, so there are only so many. Guarded by mutex_.
  std::map<std::string, Known, std::less<>> known_;
};

}  // namespace

bool Peer::isUser(std::string_view user) const {
  const uid_t uid = state_->user();
  if (uid == State::nobody) {
    return false;
  }
  if (const auto wanted = number(user)) {
    return *wanted == uid;
  }
  static auto& users = *new KnownNumbers<uid_t, passwd>(getpwnam_r, &passwd::pw_uid);
  return users.of(user) == uid;
}

bool Peer::isInGroup(std::string_view group) const {
  if (const auto wanted = number(group)) {
    return state_->isInGroup(*wanted);
  }
  static auto& groups = *new KnownNumbers<gid_t, ::group>(getgrnam_r, &::group::gr_gid);
  const auto known = groups.of(group);
  return known && state_->isInGroup(*known);
}

bool Peer::runsExecutable(const std::string& path) const {
  const runtime::BlockedScope blocked;
  const State::Pinned process = state_->pinned();
  if (!process.descriptor) {
    return false;
  }
  const auto running = identityAt("/proc/" + std::to_string(process.pid) + "/exe");
  if (!running || !process.isAlive()) {
    return false;
  }
  // The rule's path may lead to any disk.
  const auto wanted = askIdentity(path);
  return wanted && wanted->isSame(*running);
}

bool Peer::runsInUnit(std::string_view unit) const {
  const runtime::BlockedScope blocked;
  const State::Pinned process = state_->pinned();
  if (!process.descriptor || unit.empty()) {
    return false;
  }
  std::ifstream file("/proc/" + std::to_string(process.pid) + "/cgroup");
  std::string line;
  while (std::getline(file, line)) {
    if (line.starts_with("0::")) {
      return process.isAlive() && unitOfControlGroup(std::string_view(line).substr(3)) == unit;
    }
  }
  return false;
}

bool Peer::hasSecurityLabel(std::string_view label) const {
  return !label.empty() && state_->label() == label;
}

std::uint32_t Peer::userNumber() const {
  return state_->user();
}

std::string Peer::description() const {
  return state_->description();
}

}  // namespace kelvane::ipc
