// SPDX-License-Identifier: Apache-2.0
// What the log is told of peers that may not do what they want.
#include "support/Refusals.h"

#include <limits>

#include "platform/Limits.h"
#include "support/KelvaneLog.h"

namespace kelvane {

void Refusals::tellLack(const char* function, const char* thing, const ipc::Peer& peer,
                        const std::string& entitlement) {
  tell(function, thing, peer, "lacks " + entitlement,
       formatted("a rule in /etc/kelvane/entitlements.d gives it, such as { User = %u; Entitlements = (%@); }",
                 peer.userNumber(), entitlement));
}

void Refusals::tellLeftOut(const char* function, const ipc::Peer& peer, std::string_view member) {
  tell(function, "request", peer, formatted("meets no rule that allows this %@", member),
       "a rule in /etc/kelvane/entitlements.d does whose Members, Identifiers and StateKeys do not leave it out");
}

void Refusals::tell(const char* function, const char* thing, const ipc::Peer& peer, const std::string& lack,
                    const std::string& remedy) {
  const std::uint64_t count = happened(peer.userNumber(), lack);
  if (count == 1) {
    KELVANE_ERROR("%s refused a %s: %@ %@; %@", function, thing, peer.description(), lack, remedy);
  } else if (count > 1) {
    KELVANE_ERROR("%s refused %llu %ss, the last: %@ %@; %@", function, count, thing, peer.description(), lack, remedy);
  }
}

/// How many of them a line is due for.
std::uint64_t Refusals::happened(std::uint32_t user, const std::string& lack) {
  constexpr std::uint32_t others = std::numeric_limits<std::uint32_t>::max();
  const std::scoped_lock lock(mutex_);
  auto event = events_.find({user, lack});
  if (event == events_.end()) {
    const bool isOneTooMany = events_.size() >= limits::toldRefusals;
    event = events_.try_emplace({isOneTooMany ? others : user, lack}, limits::refusalLogInterval).first;
  }
  return event->second.happened();
}

}  // namespace kelvane
