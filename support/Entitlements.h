// SPDX-License-Identifier: Apache-2.0
// Who may do what.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Ipc.h"
#include "platform/Value.h"

namespace kelvane {

/// One rule: a peer that meets every condition holds the entitlements that the rule grants.
struct EntitlementRule {
  std::optional<std::string> user;
  std::optional<std::string> group;
  std::optional<std::string> executable;
  std::optional<std::string> unit;
  std::optional<std::string> label;
  std::vector<std::string> entitlements;

  bool matches(const ipc::Peer& peer) const;
};

/// The rules of this process. Immutable once read; nothing is granted but by a rule.
class EntitlementRules {
 public:
  /// Reads the "*.plist" files of the rule directories, in name order, the administrator's after the system's.
  /// A file holds one rule dictionary or an array of them, with the conditions "User" and "Group" (names or
  /// integers), "Executable" (a path), "Unit" and "Label" (strings), at least one of them, and "Entitlements"
  /// (an array of strings). A rule of another shape is logged and grants nothing.
  static EntitlementRules read();

  bool grant(const ipc::Peer& peer, const std::string& entitlement) const;

 private:
  void add(const std::string& path, const Value& contents);

  std::vector<EntitlementRule> rules_;
};

/// Makes the rules that connectionIsEntitled goes by; without it nobody holds anything.
void setEntitlementRules(EntitlementRules rules);

/// Whether the process at the other end of the connection holds every one of the entitlements. Reads files
/// of the process; any thread may call it.
bool connectionIsEntitled(const ipc::Connection& connection, const std::vector<std::string>& entitlements);
bool peerIsEntitled(const ipc::Peer& peer, const std::vector<std::string>& entitlements);

}  // namespace kelvane
