// SPDX-License-Identifier: Apache-2.0
// Who may do what.
#include "support/Entitlements.h"

#include <algorithm>
#include <array>

#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Names.h"
#include "support/AtomicProperty.h"
#include "support/KelvaneLog.h"
#include "support/Pattern.h"
#include "support/PropertyListFile.h"

namespace kelvane {

namespace {

constexpr char systemsRules[] = "/usr/lib/kelvane/entitlements.d";
constexpr char administratorsRules[] = "/etc/kelvane/entitlements.d";
constexpr char readerName[] = "EntitlementRules::read";

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

struct Restriction {
  const char* key;
  std::optional<EntitlementRule::Names> EntitlementRule::*member;
};
constexpr std::array restrictions = {
    Restriction{"Members", &EntitlementRule::members},
    Restriction{"Identifiers", &EntitlementRule::identifiers},
    Restriction{"StateKeys", &EntitlementRule::stateKeys},
};

std::optional<EntitlementRule::Names> readNames(const Value& value) {
  const Value::Array* array = value.array();
  if (array == nullptr || !std::all_of(array->begin(), array->end(), [](const Value& v) { return v.isString(); })) {
    return std::nullopt;
  }
  EntitlementRule::Names names;
  for (const Value& name : *array) {
    names.push_back(*name.string());
  }
  return names;
}

bool isMember(const std::string& name) {
  return std::ranges::any_of(KelvaneClientProtocol::operations,
                             [&name](const ipc::Operation* operation) { return name == operation->member; });
}

/// Reads one condition, a restriction or the list of what is granted; false when the entry is none of the known ones or
/// of the wrong type, since what is not understood must not be left out.
bool readEntry(const std::string& key, const Value& value, EntitlementRule& rule) {
  if (key == "Entitlements") {
    auto names = readNames(value);
    rule.entitlements = names.value_or(EntitlementRule::Names());
    return names.has_value();
  }
  for (const Restriction& restriction : restrictions) {
    if (key == restriction.key) {
      return (rule.*restriction.member = readNames(value)).has_value();
    }
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
  if (rule.members && !std::ranges::all_of(*rule.members, isMember)) {
    return std::nullopt;
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

std::vector<std::string> ruleFilesIn(const std::string& directory) {
  std::vector<std::string> names = listDirectory(directory, readerName);
  std::erase_if(names, [](const std::string& name) { return !isRuleFile(name); });
  return names;
}

/// The paths of the system's, but for those of a name of the administrator's, and then the administrator's.
std::vector<std::string> ruleFiles() {
  const std::vector<std::string> administrators = ruleFilesIn(administratorsRules);
  std::vector<std::string> paths;
  for (const std::string& name : ruleFilesIn(systemsRules)) {
    if (std::ranges::find(administrators, name) == administrators.end()) {
      paths.push_back(std::string(systemsRules) + "/" + name);
    }
  }
  for (const std::string& name : administrators) {
    paths.push_back(std::string(administratorsRules) + "/" + name);
  }
  return paths;
}

bool matchesAny(const EntitlementRule::Names& patterns, std::string_view text) {
  return std::ranges::any_of(patterns, [text](const std::string& pattern) { return matchesPattern(text, pattern); });
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

bool EntitlementRule::allows(const RuledCall& call) const {
  return (!members || std::ranges::find(*members, call.member) != members->end()) &&
         (!identifiers || !call.identifier || matchesAny(*identifiers, *call.identifier)) &&
         (!stateKeys || !call.stateKey || matchesAny(*stateKeys, *call.stateKey));
}

EntitlementRules EntitlementRules::read() {
  EntitlementRules rules;
  for (const std::string& path : ruleFiles()) {
    const auto contents = readPropertyListFile(path);
    if (const auto* error = std::get_if<FileError>(&contents)) {
      KELVANE_ERROR("%s unable to read %@: %@; it grants nothing", readerName, path, error->text);
    } else {
      rules.add(path, std::get<Value>(contents));
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
      KELVANE_ERROR("%s %@ holds no entitlement rule: %@", readerName, path, dictionary);
    }
  }
}

bool EntitlementRules::grant(const ipc::Peer& peer, const std::string& entitlement) const {
  return std::any_of(rules_.begin(), rules_.end(), [&](const EntitlementRule& rule) {
    return std::find(rule.entitlements.begin(), rule.entitlements.end(), entitlement) != rule.entitlements.end() &&
           rule.matches(peer);
  });
}

bool EntitlementRules::allow(const ipc::Peer& peer, const RuledCall& call) const {
  return std::ranges::none_of(rules_, &EntitlementRule::isRestricted) ||
         std::ranges::any_of(rules_,
                             [&](const EntitlementRule& rule) { return rule.allows(call) && rule.matches(peer); });
}

void setEntitlementRules(EntitlementRules rules) {
  currentRules().store(std::make_shared<const EntitlementRules>(std::move(rules)));
}

std::shared_ptr<const EntitlementRules> entitlementRules() {
  return currentRules().load();
}

bool connectionIsEntitled(const ipc::Connection& connection, const std::vector<std::string>& entitlements) {
  return peerIsEntitled(connection.peer(), entitlements);
}

bool peerIsEntitled(const ipc::Peer& peer, const std::vector<std::string>& entitlements) {
  const auto rules = currentRules().load();
  return rules && std::all_of(entitlements.begin(), entitlements.end(),
                              [&](const std::string& entitlement) { return rules->grant(peer, entitlement); });
}

bool peerMayCall(const ipc::Peer& peer, const RuledCall& call) {
  const auto rules = currentRules().load();
  return !rules || rules->allow(peer, call);
}

bool peerMayServe(const ipc::Peer& peer, const std::string& identifier) {
  return peerIsEntitled(peer, {entitlements::client, entitlements::service}) &&
         peerMayCall(peer, {.member = KelvaneClientProtocol::clientCheckin.member, .identifier = identifier});
}

}  // namespace kelvane
