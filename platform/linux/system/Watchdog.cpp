// SPDX-License-Identifier: Apache-2.0
// Feeds the service manager's watchdog through a queue.
#include <systemd/sd-daemon.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>

#include "platform/Process.h"
#include "platform/Queues.h"
#include "platform/Reporting.h"
#include "platform/linux/runtime/Thread.h"
#include "platform/linux/system/ServiceManager.h"

namespace kelvane {

namespace {

struct Supervision {
  SerialQueue queue;
  std::chrono::microseconds interval;
};

/// An item that cannot get through holds this thread, and so ends the feeding.
void* superviseForever(void* argument) {
  const std::unique_ptr<const Supervision> supervision(static_cast<const Supervision*>(argument));
  while (true) {
    const Semaphore passed(0);
    supervision->queue.async([passed] { passed.signal(); });
    if (!passed.wait(supervision->interval / 2)) {
      // Elsewhere, for a log that nobody reads must not hold up the feeding when the queue moves on.
      globalQueue::async([label = supervision->queue.label()] {
        reporting::reportFailure("superviseQueue", label +
                                                       " is stuck, perhaps behind a service that does not answer its "
                                                       "ping; the watchdog is not fed until it moves");
      });
      passed.wait();
    }
    // Here and not on the queue, which a service manager that does not read must not hold up.
    serviceManager::notifyWatchdog();
    std::this_thread::sleep_for(supervision->interval);
  }
}

}  // namespace

void superviseQueue(const SerialQueue& queue) {
  std::uint64_t limitMicroseconds = 0;
  if (sd_watchdog_enabled(0, &limitMicroseconds) <= 0) {
    return;
  }
  // Half the limit, as is customary: the least number of wake-ups that leaves time for a slow item.
  auto supervision =
      std::make_unique<Supervision>(Supervision{queue, std::chrono::microseconds(limitMicroseconds / 2)});
  if (runtime::startThread(superviseForever, supervision.get())) {
    supervision.release();
  } else {
    reporting::reportFailure("superviseQueue", "Unable to start the thread that feeds the watchdog");
  }
}

}  // namespace kelvane
