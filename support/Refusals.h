// SPDX-License-Identifier: Apache-2.0
// What the log is told of peers that may not do what they want.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Ipc.h"
#include "support/RepeatedEvent.h"

namespace kelvane {

/// Tells the log who was refused, what it lacks and what would give it: for each user and reason at once, and then once
/// in limits::refusalLogInterval at most, with how often it was. So no peer can fill the log, nor hide another user's
/// refusal among its own. Any thread may call it.
class Refusals {
 public:
  /// Somebody lacks an entitlement that a connection, check-in or request (thing) needs. The function is whoever
  /// refuses it.
  void tellLack(const char* function, const char* thing, const ipc::Peer& peer, const std::string& entitlement);
  /// Some rule leaves out this call of a member, and none that the peer meets allows it.
  void tellLeftOut(const char* function, const ipc::Peer& peer, std::string_view member);

 private:
  void tell(const char* function, const char* thing, const ipc::Peer& peer, const std::string& lack,
            const std::string& remedy);
  std::uint64_t happened(std::uint32_t user, const std::string& lack);

  std::mutex mutex_;
  /// By user and lack. Guarded by mutex_.
  std::map<std::pair<std::uint32_t, std::string>, RepeatedEvent> events_;
};

}  // namespace kelvane
