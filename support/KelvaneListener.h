// SPDX-License-Identifier: Apache-2.0
// The listener on the daemon's own IPC service.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/Ipc.h"
#include "support/KelvaneExportedObject.h"

namespace kelvane {

/// Accepts connections on "com.tessaly.kelvane" from processes that hold every required entitlement and
/// delivers their requests to the exported object, which must outlive the listener. Those it refuses it logs, with one
/// line for all of an interval.
class KelvaneListener {
 public:
  static std::unique_ptr<KelvaneListener> daemonListenerWithExportedObject(KelvaneExportedObject& object);

  /// Before resume().
  void addRequiredEntitlement(const std::string& entitlement);
  /// Starts accepting. A daemon that cannot be reached must not look alive: when the name cannot be listened
  /// on, this says so and ends the process with status 1.
  void resume();

 private:
  explicit KelvaneListener(KelvaneExportedObject& object);

  std::vector<std::string> requiredEntitlements_;
  ipc::Listener listener_;
};

}  // namespace kelvane
