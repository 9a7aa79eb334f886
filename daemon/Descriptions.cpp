// SPDX-License-Identifier: Apache-2.0
// Service descriptions: the services that are known before any has checked in.
#include "daemon/Descriptions.h"

#include <algorithm>
#include <set>
#include <string>

#include "daemon/Kelvane.h"
#include "protocols/Keys.h"
#include "support/KelvaneLog.h"
#include "support/PropertyListFile.h"

namespace kelvane {

namespace {

constexpr char blockName[] = "-[Kelvane init]_block";

bool arrayContains(const Value& array, const char* string) {
  const Value::Array* members = array.array();
  return members != nullptr && std::find(members->begin(), members->end(), Value(string)) != members->end();
}

/// The distinct strings of an array, in order; empty for what is no array. Only a string can be a name.
Value stringSet(const Value& array) {
  std::set<std::string> strings;
  if (const Value::Array* members = array.array()) {
    for (const Value& member : *members) {
      if (member.isString()) {
        strings.insert(*member.string());
      }
    }
  }
  return Value(Value::Array(strings.begin(), strings.end()));
}

}  // namespace

void registerDescription(const Value& description, ServiceTable& services) {
  const Value identifierValue = description[keys::id];
  if (!identifierValue.isString()) {
    return;
  }
  const std::string& identifier = *identifierValue.string();
  const auto service = std::make_shared<KLService>(identifier);
  const Value kinds = description[keys::services];
  if (kinds.isAbsent()) {
    service->setDoesPurge(true);
  } else {
    service->setDoesPeriodic(arrayContains(kinds, keys::periodic));
    service->setDoesPurge(arrayContains(kinds, keys::purge));
  }
  if (description.contains(keys::doNotQuery)) {
    KELVANE_TRACE("%s marking %@ as DO_NOT_QUERY", blockName, identifier);
    service->setDoNotQuery(true);
  }
  if (description.contains(keys::notifications)) {
    service->setDesiredNotifications(stringSet(description[keys::notifications]));
    KELVANE_TRACE("%s %@ desiredNotifications: %@", blockName, identifier, service->desiredNotifications());
  }
  services[identifier] = service;
}

void Kelvane::scanPlistsAtPath(const std::string& directory, const std::function<void(const Value&)>& execBlock) {
  constexpr char name[] = "-[Kelvane scanPlistsAtPath:execBlock:]";
  for (const std::string& entry : listDirectory(directory, name)) {
    const std::string path = formatted("%@/%@", directory, entry);
    KELVANE_TRACE("%s looking at: %@", name, path);
    const auto contents = readPropertyListFile(path);
    if (const auto* error = std::get_if<FileError>(&contents)) {
      KELVANE_ERROR("%s readTreeFromData failed: %@", name, path + ": " + error->text);
    } else if (std::get<Value>(contents).isDictionary()) {
      execBlock(std::get<Value>(contents));
    }
  }
}

}  // namespace kelvane
