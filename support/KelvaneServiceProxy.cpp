// SPDX-License-Identifier: Apache-2.0
// Calls one service's operations.
#include "support/KelvaneServiceProxy.h"

#include "protocols/KelvaneServiceProtocol.h"
#include "support/Settings.h"

namespace kelvane {

namespace {

ipc::Proxy::ReplyHandler dictionaryOrNothing(KelvaneServiceProxy::Reply reply) {
  return [reply = std::move(reply)](const Value& value) { reply(value.isDictionary() ? value : Value()); };
}

ipc::Proxy::ReplyHandler ignoringValue(KelvaneServiceProxy::Done done) {
  return [done = std::move(done)](const Value&) { done(); };
}

}  // namespace

void KelvaneServiceProxy::servicePurgeable(std::int32_t urgency, const Value& info, Reply reply) const {
  proxy_.call(KelvaneServiceProtocol::servicePurgeable, {Value(urgency), info}, dictionaryOrNothing(std::move(reply)));
}

void KelvaneServiceProxy::servicePurge(std::int32_t urgency, const Value& info, Reply reply) const {
  proxy_.call(KelvaneServiceProtocol::servicePurge, {Value(urgency), info}, dictionaryOrNothing(std::move(reply)));
}

void KelvaneServiceProxy::servicePeriodic(std::int32_t urgency, const Value& info, Reply reply) const {
  proxy_.call(KelvaneServiceProtocol::servicePeriodic, {Value(urgency), info}, dictionaryOrNothing(std::move(reply)));
}

void KelvaneServiceProxy::serviceCancelPurge(Done reply) const {
  proxy_.call(KelvaneServiceProtocol::serviceCancelPurge, {}, ignoringValue(std::move(reply)));
}

void KelvaneServiceProxy::servicePing(Done reply) const {
  proxy_.call(KelvaneServiceProtocol::servicePing, {}, ignoringValue(std::move(reply)),
              std::chrono::seconds(settings.pingLimitSeconds));
}

void KelvaneServiceProxy::serviceNotify(const Value& notification, Done reply) const {
  proxy_.call(KelvaneServiceProtocol::serviceNotify, {notification}, ignoringValue(std::move(reply)));
}

}  // namespace kelvane
