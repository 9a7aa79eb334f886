// SPDX-License-Identifier: Apache-2.0
// Who may do what.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Ipc.h"
#include "platform/Value.h"

namespace kelvane {

/// A request, as rules look at it.
struct RuledCall {
  /// The name that the interface has for it.
  std::string_view member;
  /// What is checked in as; none unless something is.
  std::optional<std::string_view> identifier = std::nullopt;
  /// The key that is set or got; none unless one is.
  std::optional<std::string_view> stateKey = std::nullopt;
};

/// One rule: a peer that meets every condition holds the entitlements that the rule grants, and may make the calls that
/// it does not leave out.
struct EntitlementRule {
  using Names = std::vector<std::string>;

  std::optional<std::string> user;
  std::optional<std::string> group;
  std::optional<std::string> executable;
  std::optional<std::string> unit;
  std::optional<std::string> label;
  Names entitlements;
  /// Members of the interface; every one when there are none.
  std::optional<Names> members;
  /// Patterns, with "*" for any characters and "?" for one. Whatever they are about may be anything when there are
  /// none.
  std::optional<Names> identifiers;
  std::optional<Names> stateKeys;

  bool matches(const ipc::Peer& peer) const;
  bool isRestricted() const { return members || identifiers || stateKeys; }
  bool allows(const RuledCall& call) const;
};

/// The rules of this process. Immutable once read; nothing is granted but by a rule.
class EntitlementRules {
 public:
  /// Reads the "*.plist" files of the rule directories, in name order, the administrator's after the system's, of which
  /// those are left out that have a name of one of the administrator's. A file holds one rule dictionary or an array of
  /// them, with the conditions "User" and "Group" (names or integers), "Executable" (a path), "Unit" and "Label"
  /// (strings), at least one of them, "Entitlements", and the restrictions "Members", "Identifiers" and "StateKeys"
  /// (arrays of strings). A rule of another shape, or about a member that there is not, is logged and grants nothing.
  static EntitlementRules read();

  bool grant(const ipc::Peer& peer, const std::string& entitlement) const;
  /// Whether some rule that the peer meets lets it make this call. Peers are looked at only where there is a rule that
  /// leaves calls out.
  bool allow(const ipc::Peer& peer, const RuledCall& call) const;

 private:
  void add(const std::string& path, const Value& contents);

  std::vector<EntitlementRule> rules_;
};

/// Makes the rules that the functions below go by from now on; without it nobody holds anything.
void setEntitlementRules(EntitlementRules rules);
/// Those rules; null before they have been set. While somebody holds them, no others are at the same place.
std::shared_ptr<const EntitlementRules> entitlementRules();

/// Whether the process at the other end of the connection holds every one of the entitlements. Reads files
/// of the process; any thread may call it.
bool connectionIsEntitled(const ipc::Connection& connection, const std::vector<std::string>& entitlements);
bool peerIsEntitled(const ipc::Peer& peer, const std::vector<std::string>& entitlements);
/// As the rules have it; nothing is left out while there are none. Reads files of the process; any thread may call it.
bool peerMayCall(const ipc::Peer& peer, const RuledCall& call);
/// Whether the peer may connect, and check in as this service.
bool peerMayServe(const ipc::Peer& peer, const std::string& identifier);

}  // namespace kelvane
