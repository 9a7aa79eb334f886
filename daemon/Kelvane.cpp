// SPDX-License-Identifier: Apache-2.0
// The registry: making it, and the snapshots of its service table.
#include "daemon/Kelvane.h"

#include <cerrno>
#include <cstdlib>

#include "daemon/Descriptions.h"
#include "platform/Process.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"
#include "support/KelvaneLog.h"

namespace kelvane {

namespace {
constexpr char initName[] = "-[Kelvane init]";
}

std::unique_ptr<Kelvane> Kelvane::init() {
  std::unique_ptr<Kelvane> registry(new Kelvane);
  setSharedKelvane(registry.get());
  registry->listener_ = KelvaneListener::daemonListenerWithExportedObject(*registry);
  registry->listener_->addRequiredEntitlement(entitlements::client);
  KELVANE_TRACE("%s resuming listener", initName);
  registry->listener_->resume();
  return registry;
}

Kelvane::Kelvane() {
  // The root's own slash makes two, here and in the paths logged beneath it.
  const std::string systemDirectory = formatted("%s%@", rootPath_, names::systemDescriptions);
  KELVANE_TRACE("%s plistDir: %@", initName, systemDirectory);
  if (auto suite = PreferencesSuite::open(names::daemon)) {
    setUserDefaults(*std::move(suite));
  } else if (suite.failure().number == EBUSY) {
    // Whatever the log's threshold: these are the process's last words.
    writeLog(errorLevel, "%s another daemon is running: %@", initName, suite.failure().text());
    exitImmediately(EXIT_FAILURE);
  } else {
    KELVANE_ERROR("%s Unable to initialize user defaults!", initName);
    remarkInStatus("state is not kept: " + suite.failure().text());
  }
  ServiceTable described;
  for (const std::string& directory : {systemDirectory, std::string(names::internalDescriptions)}) {
    KELVANE_TRACE("%s scanning %@", initName, directory);
    scanPlistsAtPath(directory, [&](const Value& description) { registerDescription(description, described); });
  }
  for (const auto& [identifier, service] : described) {
    daemons_.insert(identifier);
    services_.set(service);
  }
}

Kelvane::~Kelvane() {
  listener_.reset();
  setSharedKelvane(nullptr);
}

void Kelvane::readRulesAgain() {
  listener_->readRulesAgain();
  endUnentitledServices();
}

ServiceTable Kelvane::mutableServices() const {
  return *copyServices();
}

std::shared_ptr<const ServiceTable> Kelvane::copyServices() const {
  std::shared_ptr<const ServiceTable> copy;
  collection_queue().sync([&] {
    collection_queue().assertCurrent();
    copy = services_.snapshot();
  });
  return copy;
}

std::shared_ptr<const ServiceTable> Kelvane::services() const {
  return services_.snapshot();
}

}  // namespace kelvane
