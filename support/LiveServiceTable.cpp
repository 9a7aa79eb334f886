// SPDX-License-Identifier: Apache-2.0
// The registry's table of services, which may be read while it changes.
#include "support/LiveServiceTable.h"

namespace kelvane {

std::shared_ptr<KLService> LiveServiceTable::find(const std::string& identifier) const {
  const std::scoped_lock lock(mutex_);
  const auto entry = pairs_->find(identifier);
  return entry != pairs_->end() ? entry->second : nullptr;
}

void LiveServiceTable::set(const std::shared_ptr<KLService>& record) {
  const std::scoped_lock lock(mutex_);
  writable()[record->ID()] = record;
}

void LiveServiceTable::remove(const std::string& identifier, const std::shared_ptr<KLService>& record) {
  const std::scoped_lock lock(mutex_);
  const auto entry = pairs_->find(identifier);
  if (entry != pairs_->end() && entry->second == record) {
    writable().erase(identifier);
  }
}

std::shared_ptr<const ServiceTable> LiveServiceTable::snapshot() const {
  const std::scoped_lock lock(mutex_);
  handedOut_ = true;
  return pairs_;
}

ServiceTable& LiveServiceTable::writable() {
  if (handedOut_) {
    pairs_ = std::make_shared<ServiceTable>(*pairs_);
    handedOut_ = false;
  }
  return *pairs_;
}

}  // namespace kelvane
