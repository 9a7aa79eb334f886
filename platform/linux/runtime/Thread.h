// SPDX-License-Identifier: Apache-2.0
// Detached threads with small stacks, and what stops the process on misuse of the runtime.
#pragma once

#include <pthread.h>

#include <atomic>
#include <string>

namespace kelvane::runtime {

using ThreadCreator = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

/// What makes threads: pthread_create, unless a test puts a function here that refuses.
extern std::atomic<ThreadCreator> threadCreator;

/// Starts a detached thread that calls body(argument); false when the system refuses one.
[[nodiscard]] bool startThread(void* (*body)(void*), void* argument);

/// Ends the process for a breach of contract, with a line on standard error and SIGABRT.
[[noreturn]] void stopProcess(const std::string& reason);

}  // namespace kelvane::runtime
