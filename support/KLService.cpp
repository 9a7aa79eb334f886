// SPDX-License-Identifier: Apache-2.0
// The record of one known service.
#include "support/KLService.h"

#include <algorithm>
#include <utility>

#include "protocols/KelvaneServiceProtocol.h"

namespace kelvane {

bool KLService::desiresNotification(const std::string& name) const {
  const Value names = desiredNotifications();
  const Value::Array* array = names.array();
  return array != nullptr && std::find(array->begin(), array->end(), Value(name)) != array->end();
}

ipc::Connection KLService::connectionForCall() {
  if (vexConn_) {
    return *vexConn_;
  }
  if (const auto connection = namedConnection_.load()) {
    return *connection;
  }
  const ipc::Connection connection = makeNamedConnection();
  // Kept before it is resumed: its end, which may be sudden, must find what to forget.
  namedConnection_.store(connection);
  connection.resume();
  return connection;
}

ipc::Connection KLService::makeNamedConnection() {
  ipc::Connection connection = ipc::Connection::toService(ID_);
  connection.setRemoteInterface(KelvaneServiceProtocol::interface);
  const auto forget = [record = weak_from_this(), identity = connection.identity()] {
    if (const auto service = record.lock()) {
      service->forgetNamedConnection(identity);
    }
  };
  connection.setInterruptionHandler(forget);
  connection.setInvalidationHandler(forget);
  return connection;
}

void KLService::forgetNamedConnection(const void* identity) {
  namedConnection_.change([identity](std::optional<ipc::Connection>& connection) {
    return connection && connection->identity() == identity ? std::exchange(connection, std::nullopt) : std::nullopt;
  });
}

}  // namespace kelvane
