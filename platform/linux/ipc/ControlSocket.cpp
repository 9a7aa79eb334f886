// SPDX-License-Identifier: Apache-2.0
// The service manager's door: a socket on which root runs activities and posts events.
#include "platform/linux/ipc/ControlSocket.h"

#include <array>
#include <utility>

#include "platform/Ipc.h"
#include "platform/linux/ipc/PrivateSockets.h"
#include "platform/linux/system/Handlers.h"
#include "platform/linux/system/Paths.h"

namespace kelvane {

namespace {

constexpr std::array<ipc::Argument, 1> runActivityArguments = {{{"name", ipc::ArgumentKind::String}}};
constexpr std::array<ipc::Argument, 2> postEventArguments = {
    {{"stream", ipc::ArgumentKind::String}, {"event", ipc::ArgumentKind::Dictionary}}};
constexpr ipc::Operation runActivity = {"runActivity:", "runActivity", runActivityArguments, ipc::ReplyKind::Nothing};
constexpr ipc::Operation postEvent = {"postEvent:event:", "postEvent", postEventArguments, ipc::ReplyKind::Nothing};
constexpr std::array<const ipc::Operation*, 2> operations = {&runActivity, &postEvent};

void serve(const ipc::Request& request) {
  const std::string name = *request.value(0).string();
  const bool isActivity = request.operation.member == runActivity.member;
  const auto finished = [reply = request.reply] { reply.send(); };
  const bool isKnown =
      isActivity ? handlers::runActivity(name, finished) : handlers::postEvent(name, request.value(1), finished);
  if (!isKnown) {
    request.reply.sendError("com.tessaly.KelvanePlatform.Error.Unknown",
                            (isActivity ? "No activity named " : "No event stream named ") + name);
  }
}

struct Door {
  Door() : listener(ipc::listenAt(paths::controlSocket, 0600, controlInterface, serve)) {
    // Mode 0600 keeps others out of a socket made here; one that was passed may have been given any mode.
    listener.setAdmission([](const ipc::Peer& peer) { return peer.isUser("0"); });
    error = listener.resume();
  }

  ipc::Listener listener;
  std::optional<std::string> error;
};

}  // namespace

const ipc::Interface controlInterface = {"/com/tessaly/KelvanePlatform", "com.tessaly.KelvanePlatform", operations};

std::optional<std::string> openControlSocket() {
  static const auto* const door = new Door;
  return door->error;
}

}  // namespace kelvane
