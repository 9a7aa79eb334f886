// SPDX-License-Identifier: Apache-2.0
// Calls through the service manager's door.
#include <memory>
#include <utility>

#include "platform/Control.h"
#include "platform/linux/ipc/ControlSocket.h"
#include "platform/linux/ipc/PrivateSockets.h"
#include "platform/linux/system/Paths.h"

namespace kelvane {

void control::requestActivity(const std::string& name, Finished finished) {
  const ipc::Connection connection = ipc::connectAt(paths::controlSocket);
  connection.setRemoteInterface(controlInterface);
  const auto shared = std::make_shared<const Finished>(std::move(finished));
  connection.remoteProxy([shared](const std::optional<ipc::CallError>& error) { (*shared)(error); })
      .callForOutcome(*controlInterface.operationForMember("runActivity"), {Value(name)},
                      [shared](const std::variant<Value, ipc::CallError>& outcome) {
                        const auto* error = std::get_if<ipc::CallError>(&outcome);
                        (*shared)(error == nullptr ? std::nullopt : std::optional(*error));
                      });
  connection.resume();
}

}  // namespace kelvane
