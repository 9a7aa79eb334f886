// SPDX-License-Identifier: Apache-2.0
// The end of the process on request, but not between two steps that belong together.
#pragma once

namespace kelvane::directoryCache::ending {

/// Ends the process now, or when the Unbroken that is alive ends. Safe in a signal handler.
void request();

/// While it lives the process is not ended on request. One at a time: files go on one thread.
class Unbroken {
 public:
  Unbroken();
  ~Unbroken();
  Unbroken(const Unbroken&) = delete;
  Unbroken& operator=(const Unbroken&) = delete;
};

}  // namespace kelvane::directoryCache::ending
