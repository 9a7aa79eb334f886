// SPDX-License-Identifier: Apache-2.0
// Detached threads with small stacks, and what stops the process on misuse of the runtime.
#include "platform/linux/runtime/Thread.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace kelvane::runtime {

std::atomic<ThreadCreator> threadCreator{&pthread_create};

namespace {

// Thousands of blocked requests hold a thread each.
constexpr std::size_t stackBytes = KELVANE_WORKER_STACK_KIB * std::size_t{1024};

}  // namespace

bool startThread(void* (*body)(void*), void* argument) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0)
    return false;
  pthread_t thread;
  const bool started = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED) == 0 &&
                       pthread_attr_setstacksize(&attributes, stackBytes) == 0 &&
                       threadCreator.load(std::memory_order_relaxed)(&thread, &attributes, body, argument) == 0;
  pthread_attr_destroy(&attributes);
  return started;
}

void stopProcess(const std::string& reason) {
  std::fprintf(stderr, "kelvane: %s\n", reason.c_str());
  std::abort();
}

}  // namespace kelvane::runtime
