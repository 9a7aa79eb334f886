// SPDX-License-Identifier: Apache-2.0
// The listener on the daemon's own IPC service.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/Ipc.h"
#include "support/KelvaneExportedObject.h"

namespace kelvane {

class Refusals;

/// Accepts connections on "com.tessaly.kelvane" from processes that hold every required entitlement and
/// delivers their requests to the exported object, which must outlive the listener. Whom it refuses, and why, it has
/// the log told.
class KelvaneListener {
 public:
  static std::unique_ptr<KelvaneListener> daemonListenerWithExportedObject(KelvaneExportedObject& object);

  /// Before resume().
  void addRequiredEntitlement(const std::string& entitlement);
  /// Starts accepting. A daemon that cannot be reached must not look alive: when the name cannot be listened
  /// on, this says so and ends the process with status 1.
  void resume();
  /// Reads the rules anew, for everything that is decided from then on, and ends the connections that they do not
  /// admit. Blocks while it reads. A file that cannot be read grants nothing, whatever it granted before.
  void readRulesAgain();

 private:
  explicit KelvaneListener(KelvaneExportedObject& object);

  std::vector<std::string> requiredEntitlements_;
  const std::shared_ptr<Refusals> refusals_;
  ipc::Listener listener_;
};

}  // namespace kelvane
