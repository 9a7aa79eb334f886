// SPDX-License-Identifier: Apache-2.0
// The end of the process on request, but not between two steps that belong together.
#include "services/directory-cache/Ending.h"

#include <atomic>
#include <cstdlib>

#include "platform/Process.h"

namespace kelvane::directoryCache::ending {

namespace {

enum class State { Idle, Unbroken, Ending };

/// The process ends in the step from Idle, or from Unbroken, to Ending: whoever takes it, it is taken once.
std::atomic<State> state = State::Idle;
std::atomic<bool> isRequested = false;
static_assert(std::atomic<State>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void endIf(State expected) {
  if (state.compare_exchange_strong(expected, State::Ending)) {
    exitImmediately(EXIT_SUCCESS);
  }
}

}  // namespace

void request() {
  isRequested = true;
  endIf(State::Idle);
}

Unbroken::Unbroken() {
  State expected = State::Idle;
  while (!state.compare_exchange_weak(expected, State::Unbroken)) {
    // Another thread is in the handler: this one goes no further.
    expected = State::Idle;
  }
}

Unbroken::~Unbroken() {
  if (isRequested) {
    endIf(State::Unbroken);
  }
  state = State::Idle;
  // The request may have come between the two.
  if (isRequested) {
    endIf(State::Idle);
  }
}

}  // namespace kelvane::directoryCache::ending
