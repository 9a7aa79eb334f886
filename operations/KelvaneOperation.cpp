// SPDX-License-Identifier: Apache-2.0
// The base of every unit of work that is run against the services.
#include "operations/KelvaneOperation.h"

#include "protocols/Keys.h"
#include "support/CallService.h"
#include "support/KelvaneLog.h"
#include "support/Volumes.h"

namespace kelvane {

namespace {

std::int32_t urgencyLimitOf(const Value& info) {
  const Value urgency = info[keys::urgency];
  const Value value = urgency.isAbsent() ? info[keys::urgencyLimit] : urgency;
  if (!value.isNumber()) {
    return KelvaneOperation::defaultUrgencyLimit;
  }
  const std::int32_t limit = value.int32Value();
  return limit >= 1 && limit <= KelvaneOperation::maximumUrgency ? limit : KelvaneOperation::defaultUrgencyLimit;
}

}  // namespace

bool KelvaneOperation::initWithInfo(const Value& info, ServiceTable services) {
  constexpr char name[] = "-[KelvaneOperation initWithInfo:services:]";
  if (!info.isDictionary()) {
    KELVANE_ERROR("%s info is not a dictionary!", name);
    return refuse("Parameter error, info is not a dict");
  }
  const Value volume = info[keys::volume];
  if (!volume.isString()) {
    KELVANE_ERROR("%s No Volume key in info: %@", name, info);
    return refuse("Parameter error, no Volume key in info dict");
  }
  volume_ = *volume.string();
  if (!validateVolume(info)) {
    KELVANE_ERROR("%s Unable to validate volume: %@", name, volume);
    return refuse("Parameter error, Unable to validate volume in info dict");
  }
  setResult(info);
  services_ = std::move(services);
  info_ = info;
  urgencyLimit_ = urgencyLimitOf(info);
  return true;
}

bool KelvaneOperation::refuse(const char* error) {
  setResult(Value::Dictionary{{keys::error, error}});
  return false;
}

bool KelvaneOperation::updateInFlight(const std::string& identifier, bool add) {
  constexpr char name[] = "-[KelvaneOperation updateInFlight:add:]_block";
  bool changed = false;
  collection_queue_.sync([&] {
    collection_queue_.assertCurrent();
    KELVANE_TRACE("%s %s %@", name, add ? "adding" : "removing", identifier);
    changed = add ? inFlight_.insert(identifier).second : inFlight_.erase(identifier) != 0;
    inFlightSize_ = inFlight_.size();
    if (!changed && add) {
      KELVANE_ERROR("%s trying to add \"%@\", which is already inFlight", name, identifier);
    } else if (!changed) {
      KELVANE_TRACE("%s trying to remove \"%@\", which is not inFlight", name, identifier);
    }
  });
  return changed;
}

std::uint64_t KelvaneOperation::inFlightCount() const {
  std::uint64_t count = 0;
  collection_queue_.sync([&] {
    collection_queue_.assertCurrent();
    count = inFlight_.size();
  });
  return count;
}

std::set<std::string> KelvaneOperation::inFlight() const {
  std::set<std::string> identifiers;
  collection_queue_.sync([&] {
    collection_queue_.assertCurrent();
    identifiers = inFlight_;
  });
  return identifiers;
}

void KelvaneOperation::cancelOperation() {
  collection_queue_.async([self = shared_from_this()] {
    self->collection_queue_.assertCurrent();
    for (const std::string& identifier : self->inFlight_) {
      self->sendCancel(identifier, [self, identifier] {
        KELVANE_TRACE("%s connection invalidated: %@", "-[KelvaneOperation cancelOperation]_block", identifier);
        self->updateInFlight(identifier, false);
      });
    }
  });
}

void KelvaneOperation::sendCancel(const std::string& identifier, Block error) const {
  const auto service = services_.find(identifier);
  if (service != services_.end()) {
    CallServiceAsync(
        service->second,
        [](const KelvaneServiceProxy& proxy, Block completion) { proxy.serviceCancelPurge(std::move(completion)); },
        std::move(error));
  }
}

ServiceTable KelvaneOperation::selected(const ServiceTable& services, bool (*isWanted)(const KLService&)) {
  ServiceTable wanted;
  for (const auto& entry : services) {
    if (isWanted(*entry.second)) {
      wanted.insert(wanted.end(), entry);
    }
  }
  return wanted;
}

Value KelvaneOperation::arrayOf(const std::set<std::string>& identifiers) {
  return Value(Value::Array(identifiers.begin(), identifiers.end()));
}

}  // namespace kelvane
