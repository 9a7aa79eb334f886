// SPDX-License-Identifier: Apache-2.0
// Telling services about named values, and asking whether a service answers at all.
#include <atomic>

#include "daemon/Kelvane.h"
#include "support/CallService.h"
#include "support/KelvaneLog.h"

namespace kelvane {

namespace {
constexpr char blockName[] = "-[Kelvane notifyRecipients:value:]_block";
}

void Kelvane::notifyRecipients(const std::string& name, const Value& value) {
  KELVANE_TRACE("%s name: %@, value: %@", "-[Kelvane notifyRecipients:value:]", name, value);
  // One for all: however many services are slow to take it, it is held once.
  const Value notification = Value::Dictionary{{name, value}};
  notify_queue().async([name, notification, services = copyServices()] {
    for (const auto& [identifier, service] : *services) {
      if (!service->desiresNotification(name)) {
        continue;
      }
      CallServiceAsync(
          service,
          [notification, identifier = identifier](const KelvaneServiceProxy& proxy, Block completion) {
            KELVANE_TRACE("%s %d serviceID: %@", blockName, 347, identifier);
            proxy.serviceNotify(notification, std::move(completion));
          },
          [] { KELVANE_TRACE("%s connection invalidated", blockName); });
    }
  });
}

bool Kelvane::pingService(const KelvaneServiceProxy& proxy) {
  constexpr char name[] = "-[Kelvane pingService:]";
  const Semaphore semaphore(0);
  const auto pong = std::make_shared<std::atomic<bool>>(false);
  KELVANE_TRACE("%s calling servicePing", name);
  proxy.servicePing([semaphore, pong] {
    KELVANE_TRACE("%s ping got pong", "-[Kelvane pingService:]_block");
    *pong = true;
    semaphore.signal();
  });
  semaphore.wait();
  return *pong;
}

}  // namespace kelvane
