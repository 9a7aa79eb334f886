// SPDX-License-Identifier: Apache-2.0
// From process start to serving.
#include "daemon/StartUp.h"

#include <cerrno>
#include <cstring>

#include "daemon/Kelvane.h"
#include "platform/Process.h"
#include "platform/Reporting.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"
#include "support/KelvaneLog.h"
#include "support/Settings.h"
#include "support/Timebase.h"
#include "support/Volumes.h"

namespace kelvane {

namespace {

constexpr char mainName[] = "main";

void sigterm_handler(int) {
  exitImmediately(0);
}

void readTimebase() {
  const auto timebase = clock::timebase();
  if (!timebase) {
    KELVANE_ERROR("%s Failed to get timebase info\n", mainName);
    gTimebaseConversion = 0.0;
    return;
  }
  gTimebaseConversion = static_cast<double>(timebase->numerator) / static_cast<double>(timebase->denominator);
  KELVANE_TRACE("%s timebaseInfo:  %u / %u, gTimebaseConversion: %f", mainName, timebase->numerator,
                timebase->denominator, gTimebaseConversion.load());
}

void performDailyWork() {
  for (const std::string& volume : getLocalVolumes()) {
    Kelvane::sharedKelvane().performPeriodicsWithInfo(Value::Dictionary{{keys::volume, volume}});
  }
}

void handleDailyActivity(const Activity& activity) {
  const Transaction transaction;
  if (activity.state == ActivityState::Run) {
    globalQueue::sync(performDailyWork);
  }
}

void handleFileSystemEvent(const Value& event) {
  const Transaction transaction;
  Kelvane::sharedKelvane().handleVFSStreamVEXEvent(event);
}

void readConfigurationAgain() {
  const Transaction transaction;
  configureSettings();
  Kelvane::sharedKelvane().readRulesAgain();
  KELVANE_TRACE("%s has read the settings and the rules again", mainName);
}

void start() {
  setReloadHandler(readConfigurationAgain);
  const Transaction transaction;
  configureLog();
  configureSettings();
  reporting::reserveNames(names::daemon, statistics::daemonsOwn);
  readTimebase();
  // Lives until the process ends and is not taken apart then: other threads may still be at work in it.
  const Kelvane* registry = Kelvane::init().release();
  superviseQueue(registry->collection_queue());
  registerActivity(names::dailyActivity, handleDailyActivity);
  setEventStreamHandler(names::fileSystemEvents, handleFileSystemEvent);
  installTerminationHandler(sigterm_handler);
  if (postNotification(names::launchedNotification) != 0) {
    KELVANE_ERROR("%s vox_post failed: %s", mainName, std::strerror(errno));
  }
  KELVANE_TRACE("%s Kelvane, open for business!", mainName);
}

}  // namespace

void runDaemon() {
  start();
  enterMainLoop();
}

}  // namespace kelvane
