// SPDX-License-Identifier: Apache-2.0
// Introduces a service to the daemon, as often as it takes.
#include "support/ServiceCheckin.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <variant>

#include "platform/Reporting.h"
#include "protocols/KelvaneClientProtocol.h"
#include "protocols/KelvaneServiceProtocol.h"
#include "protocols/Keys.h"
#include "protocols/Names.h"
#include "support/AtomicProperty.h"
#include "support/KelvaneLog.h"
#include "support/KelvaneService.h"

namespace kelvane {

namespace {

constexpr std::int32_t noticeLevel = 4;

Value checkinInfo(const KelvaneServiceConfiguration& configuration) {
  Value::Dictionary info = {{keys::purge, configuration.purges}, {keys::periodic, configuration.periodic}};
  if (!configuration.notifications.empty()) {
    info[keys::notifications] = Value::Array(configuration.notifications.begin(), configuration.notifications.end());
  }
  return info;
}

std::string lackOf(const std::string& entitlement) {
  return "this process lacks " + entitlement + "; a rule in /etc/kelvane/entitlements.d gives it";
}

}  // namespace

/// One check-in and the endpoint that it was made with. Shared with the handlers that tell what became of it.
struct ServiceCheckin::Attempt {
  explicit Attempt(Semaphore semaphore) : changed(std::move(semaphore)) {}

  /// Gives up what the attempt holds. Not left to the destructor, which may run on a thread that must not block.
  void end() {
    listener.reset();
    if (daemon) {
      daemon->invalidate();
    }
  }

  void fail(std::string text) {
    error.store(std::move(text));
    failed = true;
    changed.signal();
  }

  const Semaphore changed;
  std::optional<ipc::Listener> listener;
  std::optional<ipc::Connection> daemon;

  std::atomic<bool> closed = false;    ///< the endpoint
  std::atomic<bool> used = false;      ///< the endpoint, by the daemon
  std::atomic<bool> answered = false;  ///< the check-in
  std::atomic<bool> failed = false;    ///< the check-in; error tells how
  AtomicProperty<std::string> error;
  AtomicProperty<Value> answer;
};

ServiceCheckin::ServiceCheckin(const KelvaneServiceConfiguration& configuration, ipc::RequestHandler handler)
    : identifier_(configuration.identifier), info_(checkinInfo(configuration)), handler_(std::move(handler)) {}

void ServiceCheckin::run() {
  std::chrono::milliseconds pause = firstPause;
  while (!stopping_) {
    const std::shared_ptr<Attempt> attempt = begin();
    await(*attempt);
    if (attempt->answered && attempt->used) {
      pause = firstPause;
    }
    // Before the pause, so that the daemon does not take the endpoint for a live one meanwhile.
    attempt->end();
    static_cast<void>(stopped_.wait(pause));
    pause = std::min(pause * 2, longestPause);
  }
}

void ServiceCheckin::stop() {
  stopping_ = true;
  changed_.signal();
  stopped_.signal();
}

std::shared_ptr<ServiceCheckin::Attempt> ServiceCheckin::begin() const {
  const auto attempt = std::make_shared<Attempt>(changed_);
  const std::weak_ptr<Attempt> weak = attempt;

  // It serves before it checks in: the daemon answers a check-in only after the service has answered its ping.
  attempt->listener = ipc::Listener::anonymous(KelvaneServiceProtocol::interface,
                                               [weak, handler = handler_](const ipc::Request& request) {
                                                 if (const auto self = weak.lock()) {
                                                   self->used = true;
                                                 }
                                                 handler(request);
                                               });
  attempt->listener->setDisconnectHandler([weak](const ipc::Connection&) {
    if (const auto self = weak.lock()) {
      self->closed = true;
      self->changed.signal();
    }
  });
  std::optional<std::string> error = attempt->listener->resume();
  const std::optional<ipc::Endpoint> endpoint = error ? std::nullopt : attempt->listener->endpoint();
  if (!endpoint) {
    attempt->fail(error.value_or("the system has no endpoint to give"));
    return attempt;
  }

  attempt->daemon = ipc::Connection::toService(names::daemon);
  attempt->daemon->setRemoteInterface(KelvaneClientProtocol::interface);
  attempt->daemon
      ->remoteProxy([weak](const std::optional<ipc::CallError>& lost) {
        if (const auto self = weak.lock()) {
          const bool isRefused = lost && lost->cause == ipc::CallError::Cause::NotAdmitted;
          self->fail(isRefused ? "the daemon closed the connection: " + lackOf(entitlements::client)
                     : lost    ? lost->text
                               : "the connection was lost");
        }
      })
      .callForOutcome(KelvaneClientProtocol::clientCheckin, {Value(identifier_), *endpoint, info_},
                      [weak](const std::variant<Value, ipc::CallError>& outcome) {
                        const auto self = weak.lock();
                        if (!self) {
                          return;
                        }
                        if (const auto* refusal = std::get_if<ipc::CallError>(&outcome)) {
                          self->fail(refusal->text);
                          return;
                        }
                        self->answer.store(std::get<Value>(outcome));
                        self->answered = true;
                        self->changed.signal();
                      });
  // Only now, so that the call is told why no connection could be made.
  attempt->daemon->resume();
  return attempt;
}

void ServiceCheckin::await(const Attempt& attempt) {
  bool isSettled = false;
  while (!stopping_ && !attempt.closed && !attempt.failed) {
    if (attempt.answered && !isSettled) {
      isSettled = true;
      // From here on the endpoint tells whether the daemon lives.
      attempt.daemon->invalidate();
      reportAnswer(attempt);
    }
    changed_.wait();
  }
  // The answer and the endpoint's end come on different ways, either first.
  while (!stopping_ && !attempt.answered && !attempt.failed && changed_.wait(firstPause)) {
  }
  if (stopping_) {
    return;
  }
  if (attempt.failed) {
    report(errorLevel, "cannot check in: " + attempt.error.load());
  } else if (!attempt.answered) {
    report(errorLevel, "the daemon did not answer the check-in: " + lackOf(entitlements::service));
  } else if (attempt.used) {
    report(errorLevel, "the daemon closed its connection; checking in again");
  } else if (!isSettled) {
    reportAnswer(attempt);
  }
}

void ServiceCheckin::reportAnswer(const Attempt& attempt) {
  if (attempt.answer.load().isAbsent()) {
    report(errorLevel,
           "a service description holds this identifier, so the daemon reaches the service by its name and not by its "
           "check-in");
  } else if (attempt.used) {
    report(noticeLevel, "checked in");
  } else {
    report(errorLevel, "the daemon still knows this identifier by another endpoint");
  }
}

void ServiceCheckin::report(std::int32_t level, const std::string& event) {
  // Attempts that end alike are one piece of news.
  if (event != lastReport_) {
    lastReport_ = event;
    reporting::writeLog(level, logCategory, "ServiceCheckin::run", identifier_ + ": " + event);
  }
}

}  // namespace kelvane
