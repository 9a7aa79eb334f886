// SPDX-License-Identifier: Apache-2.0
// Who may do what.
#include "support/Entitlements.h"

#include <algorithm>
#include <array>

#include "platform/Files.h"
#include "support/AtomicProperty.h"
#include "support/KelvaneLog.h"
#include "support/PropertyListFile.h"

namespace kelvane {

namespace {

constexpr std::array ruleDirectories = {"/usr/lib/kelvane/entitlements.d", "/etc/kelvane/entitlements.d"};
constexpr char entitlementsKey[] = "Entitlements";

struct Condition {
  const char* key;
  std::optional<std::string> EntitlementRule::*member;
  bool mayBeInteger = false;
};
constexpr std::array conditions = {
    Condition{"User", &EntitlementRule::user, true},       Condition{"Group", &EntitlementRule::group, true},
    Condition{"Executable", &EntitlementRule::executable}, Condition{"Unit", &EntitlementRule::unit},
    Condition{"Label", &EntitlementRule::label},
};

/// Reads one condition or the list of what is granted; false when the entry is none of the known ones or of
/// the wrong type, since a condition that is not understood must not be left out.
bool readEntry(const std::string& key, const Value& value, EntitlementRule& rule) {
  if (key == entitlementsKey) {
    const Value::Array* names = value.array();
    if (names == nullptr || !std::all_of(names->begin(), names->end(), [](const Value& v) { return v.isString(); })) {
      return false;
    }
    for (const Value& name : *names) {
      rule.entitlements.push_back(*name.string());
    }
    return true;
  }
  for (const Condition& condition : conditions) {
    const bool isInteger = value.isSigned() || value.isUnsigned();
    if (key == condition.key && (value.isString() || (condition.mayBeInteger && isInteger))) {
      rule.*condition.member = value.description();
      return true;
    }
  }
  return false;
}

std::optional<EntitlementRule> readRule(const Value& dictionary) {
  const auto entries = dictionary.dictionary();
  if (!entries) {
    return std::nullopt;
  }
  EntitlementRule rule;
  for (const auto& [key, value] : *entries) {
    if (!readEntry(key, value, rule)) {
      return std::nullopt;
    }
  }
  const bool hasCondition = std::any_of(conditions.begin(), conditions.end(),
                                        [&](const Condition& c) { return (rule.*c.member).has_value(); });
  return hasCondition ? std::optional(rule) : std::nullopt;
}

/// Backups that editors and package managers leave beside a rule file, and what was moved aside into a directory,
/// must not go on granting.
bool isRuleFile(std::string_view entry) {
  return entry.ends_with(".plist") && !entry.starts_with('.') && entry.find('/') == std::string_view::npos;
}

AtomicProperty<std::shared_ptr<const EntitlementRules>>& currentRules() {
  static AtomicProperty<std::shared_ptr<const EntitlementRules>> rules;
  return rules;
}

}  // namespace

bool EntitlementRule::matches(const ipc::Peer& peer) const {
  return (!user || peer.isUser(*user)) && (!group || peer.isInGroup(*group)) &&
         (!label || peer.hasSecurityLabel(*label)) && (!unit || peer.runsInUnit(*unit)) &&
         (!executable || peer.runsExecutable(*executable));
}

EntitlementRules EntitlementRules::read() {
  EntitlementRules rules;
  for (const std::string directory : ruleDirectories) {
    for (const std::string& entry : files::entriesBeneath(directory)) {
      if (!isRuleFile(entry)) {
        continue;
      }
      const std::string path = directory + "/" + entry;
      const auto contents = readPropertyListFile(path);
      if (const auto* error = std::get_if<FileError>(&contents)) {
        KELVANE_ERROR("%s unable to read %@: %@", "EntitlementRules::read", path, error->text);
      } else {
        rules.add(path, std::get<Value>(contents));
      }
    }
  }
  return rules;
}

void EntitlementRules::add(const std::string& path, const Value& contents) {
  const Value::Array* array = contents.array();
  for (const Value& dictionary : array != nullptr ? *array : Value::Array{contents}) {
    if (auto rule = readRule(dictionary)) {
      rules_.push_back(std::move(*rule));
    } else {
      KELVANE_ERROR("%s %@ holds no entitlement rule: %@", "EntitlementRules::read", path, dictionary);
    }
  }
}

bool EntitlementRules::grant(const ipc::Peer& peer, const std::string& entitlement) const {
  return std::any_of(rules_.begin(), rules_.end(), [&](const EntitlementRule& rule) {
    return std::find(rule.entitlements.begin(), rule.entitlements.end(), entitlement) != rule.entitlements.end() &&
           rule.matches(peer);
  });
}

void setEntitlementRules(EntitlementRules rules) {
  currentRules().store(std::make_shared<const EntitlementRules>(std::move(rules)));
}

bool connectionIsEntitled(const ipc::Connection& connection, const std::vector<std::string>& entitlements) {
  return peerIsEntitled(connection.peer(), entitlements);
}

bool peerIsEntitled(const ipc::Peer& peer, const std::vector<std::string>& entitlements) {
  const auto rules = currentRules().load();
  return rules && std::all_of(entitlements.begin(), entitlements.end(),
                              [&](const std::string& entitlement) { return rules->grant(peer, entitlement); });
}

}  // namespace kelvane
