// SPDX-License-Identifier: Apache-2.0
// What the operations see of the registry.
#include "operations/SharedRegistry.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace kelvane {

namespace {
std::atomic<SharedRegistry*> sharedRegistry = nullptr;
}

SharedRegistry& SharedRegistry::sharedKelvane() {
  SharedRegistry* registry = sharedRegistry.load(std::memory_order_acquire);
  if (registry == nullptr) {
    std::fputs("there is no shared registry yet\n", stderr);
    std::abort();
  }
  return *registry;
}

void SharedRegistry::setSharedKelvane(SharedRegistry* registry) {
  sharedRegistry.store(registry, std::memory_order_release);
}

}  // namespace kelvane
