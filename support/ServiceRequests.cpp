// SPDX-License-Identifier: Apache-2.0
// Brings the daemon's requests to a service's functions.
#include "support/ServiceRequests.h"

#include <utility>

#include "protocols/KelvaneServiceProtocol.h"
#include "protocols/Keys.h"

namespace kelvane {

namespace {

SpaceRequest spaceRequest(const ipc::Request& request) {
  const Value& info = request.value(1);
  const Value volume = info[keys::volume];
  return {request.value(0).int32Value(), volume.isString() ? *volume.string() : std::string(),
          info[keys::amount].uint64Value(), info};
}

Value amountAnswer(std::uint64_t bytes) {
  return Value::Dictionary{{keys::amount, bytes}};
}

}  // namespace

ServiceRequests::ServiceRequests(KelvaneService& service, const std::string& identifier)
    : service_(service),
      purgeQueue_(identifier + "_purge"),
      queryQueue_(identifier + "_query"),
      cancelQueue_(identifier + "_cancel") {}

void ServiceRequests::handle(const ipc::Request& request) {
  namespace protocol = KelvaneServiceProtocol;
  const ipc::Operation* operation = &request.operation;
  if (operation == &protocol::servicePing) {
    request.reply.send();
  } else if (operation == &protocol::serviceCancelPurge) {
    cancelPurges();
    request.reply.send();
  } else if (operation == &protocol::servicePurge) {
    submit(purgeQueue_, true, request.reply, [this, space = spaceRequest(request)](const Cancellation& cancellation) {
      // It may have waited behind another, and been cancelled with it.
      return amountAnswer(cancellation.isCancelled() ? 0 : service_.purge(space, cancellation));
    });
  } else if (operation == &protocol::servicePeriodic) {
    submit(purgeQueue_, false, request.reply, [this, space = spaceRequest(request)](const Cancellation& cancellation) {
      return amountAnswer(service_.periodic(space, cancellation));
    });
  } else if (operation == &protocol::servicePurgeable) {
    submit(queryQueue_, false, request.reply,
           [this, space = spaceRequest(request)](const Cancellation& cancellation) -> Value {
             if (const auto bytes = service_.purgeable(space, cancellation)) {
               return amountAnswer(*bytes);
             }
             return Value::Dictionary{{keys::amount, std::uint64_t{0}}, {keys::optOut, true}};
           });
  } else if (operation == &protocol::serviceNotify) {
    submit(queryQueue_, false, request.reply,
           [this, notifications = request.value(0)](const Cancellation&) { return notify(notifications); });
  } else if (operation == &protocol::serviceCallback) {
    submit(queryQueue_, false, request.reply,
           [this, info = request.value(0)](const Cancellation&) { return service_.callback(info); });
  }
}

void ServiceRequests::submit(const SerialQueue& queue, bool isPurge, const ipc::Reply& reply, Work work) {
  if (!enter()) {
    return;
  }
  const Cancellation cancellation;
  add(cancellation, isPurge);
  queue.async([self = shared_from_this(), cancellation, isPurge, reply, work = std::move(work)] {
    // Unanswered once refusing: whoever asked is to see the connection end, not a service without anything to give.
    if (!self->refusing_) {
      reply.send(work(cancellation));
    }
    self->remove(cancellation, isPurge);
    self->underWay_.leave();
  });
}

bool ServiceRequests::enter() const {
  // Entered before the test: whoever sets the flag and then waits either is waited for or is seen here.
  underWay_.enter();
  if (refusing_) {
    underWay_.leave();
    return false;
  }
  return true;
}

void ServiceRequests::add(const Cancellation& cancellation, bool isPurge) {
  cancelQueue_.sync([&] {
    cancelQueue_.assertCurrent();
    (isPurge ? purges_ : others_).push_back(cancellation);
  });
}

void ServiceRequests::remove(const Cancellation& cancellation, bool isPurge) {
  cancelQueue_.sync([&] {
    cancelQueue_.assertCurrent();
    std::erase(isPurge ? purges_ : others_, cancellation);
  });
}

void ServiceRequests::cancelPurges() {
  if (!enter()) {
    return;
  }
  cancelQueue_.sync([&] {
    cancelQueue_.assertCurrent();
    for (const Cancellation& cancellation : purges_) {
      cancellation.cancel();
    }
  });
  service_.cancelPurge();
  underWay_.leave();
}

void ServiceRequests::refuse() {
  refusing_ = true;
  cancelQueue_.sync([&] {
    cancelQueue_.assertCurrent();
    for (const Cancellation& cancellation : purges_) {
      cancellation.cancel();
    }
    for (const Cancellation& cancellation : others_) {
      cancellation.cancel();
    }
  });
}

Value ServiceRequests::notify(const Value& notifications) {
  if (const auto dictionary = notifications.dictionary()) {
    for (const auto& [name, value] : *dictionary) {
      service_.notify(name, value);
    }
  }
  return {};
}

}  // namespace kelvane
