// SPDX-License-Identifier: Apache-2.0
// The registry's table of services, which may be read while it changes.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "support/KLService.h"

namespace kelvane {

/// Maps identifiers to records. Its owner orders the changes; any thread may take a snapshot at any time.
/// Each function is atomic.
class LiveServiceTable {
 public:
  /// Null when the identifier is not known.
  std::shared_ptr<KLService> find(const std::string& identifier) const;
  /// Stores a record under its identifier, in the place of an earlier one.
  void set(const std::shared_ptr<KLService>& record);
  /// Removes the entry if it is this very record.
  void remove(const std::string& identifier, const std::shared_ptr<KLService>& record);

  /// The pairs of this moment. Copies nothing while the table does not change.
  std::shared_ptr<const ServiceTable> snapshot() const;

 private:
  /// The pairs, made safe to change. The caller holds the lock.
  ServiceTable& writable();

  mutable std::mutex mutex_;
  std::shared_ptr<ServiceTable> pairs_ = std::make_shared<ServiceTable>();
  /// Whether a snapshot of the pairs was given out, so that they may not change any more.
  mutable bool handedOut_ = false;
};

}  // namespace kelvane
