// SPDX-License-Identifier: Apache-2.0
// The wish that the process read its configuration again.
#include "platform/linux/system/Reload.h"

#include <unistd.h>

#include <csignal>
#include <utility>

#include "platform/Process.h"
#include "platform/linux/system/ServiceManager.h"

namespace kelvane {

namespace {

/// The main thread's.
std::function<void()>& reloadHandler() {
  static auto& handler = *new std::function<void()>;
  return handler;
}

sigset_t reloadSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGHUP);
  return signals;
}

}  // namespace

void setReloadHandler(std::function<void()> handler) {
  reloadHandler() = std::move(handler);
  // It stays pending until the main thread takes it, also where whoever started the process has it ignored.
  const sigset_t signals = reloadSignal();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void reload::fulfilNext() {
  if (!reloadHandler()) {
    pause();
    return;
  }
  const sigset_t signals = reloadSignal();
  if (sigwaitinfo(&signals, nullptr) < 0) {
    return;
  }
  serviceManager::notifyReloading();
  reloadHandler()();
  serviceManager::notifyReady();
}

}  // namespace kelvane
