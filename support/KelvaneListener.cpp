// SPDX-License-Identifier: Apache-2.0
// The listener on the daemon's own IPC service.
#include "support/KelvaneListener.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "platform/Clock.h"
#include "platform/Process.h"
#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Names.h"
#include "support/Entitlements.h"
#include "support/KelvaneLog.h"
#include "support/Pace.h"
#include "support/Refusals.h"
#include "support/Settings.h"

namespace kelvane {

namespace {

thread_local const ipc::Connection* deliveredConnection = nullptr;

class DeliveryScope {
 public:
  explicit DeliveryScope(const ipc::Connection& connection) : outer_(std::exchange(deliveredConnection, &connection)) {}
  ~DeliveryScope() { deliveredConnection = outer_; }
  DeliveryScope(const DeliveryScope&) = delete;
  DeliveryScope& operator=(const DeliveryScope&) = delete;

 private:
  /// A thread that waits in one delivery may be given another.
  const ipc::Connection* const outer_;
};

constexpr std::uint32_t superuser = 0;
constexpr char resumeName[] = "-[KelvaneListener resume]";
constexpr char limitsExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr char accessDenied[] = "org.freedesktop.DBus.Error.AccessDenied";

void answerCheckin(const ipc::Reply& reply, const Value& dictionary,
                   const std::optional<KelvaneExportedObject::CheckinError>& error) {
  using Cause = KelvaneExportedObject::CheckinError::Cause;
  if (error) {
    reply.sendError(error->cause == Cause::TooMuch ? limitsExceeded : accessDenied, error->text);
  } else {
    reply.send(dictionary);
  }
}

/// Whether a service may not check in because its identifier is another user's. Who may not at all is the object's
/// business.
bool isAnothers(const KelvaneExportedObject& object, const std::string& identifier, const ipc::Connection& connection) {
  if (!settings.ownedIdentifiers) {
    return false;
  }
  const std::optional<std::uint32_t> owner = object.ownerOf(identifier);
  return owner && *owner != connection.peer().userNumber() && connectionIsEntitled(connection, {entitlements::service});
}

RuledCall ruledCall(const ipc::Request& request) {
  namespace protocol = KelvaneClientProtocol;
  RuledCall call{.member = request.operation.member};
  if (&request.operation == &protocol::clientCheckin) {
    call.identifier = *request.value(0).string();
  } else if (&request.operation == &protocol::clientSetState) {
    call.stateKey = *request.value(1).string();
  } else if (&request.operation == &protocol::clientGetState) {
    call.stateKey = *request.value(0).string();
  }
  return call;
}

void answerSet(const ipc::Reply& reply, const std::optional<KelvaneExportedObject::StateError>& error) {
  using Cause = KelvaneExportedObject::StateError::Cause;
  if (!error) {
    reply.send();
  } else if (error->cause == Cause::TooMuch) {
    reply.sendError(limitsExceeded, error->text);
  } else if (error->cause == Cause::Unstorable) {
    reply.sendError("org.freedesktop.DBus.Error.InvalidArgs", error->text);
  } else {
    reply.sendError("org.freedesktop.DBus.Error.IOError", error->text);
  }
}

/// Waits, on the thread that delivers it, until a user's state write may be carried out.
void awaitTurn(Pace& stateWrites, const ipc::Connection& connection) {
  const std::uint32_t perSecond = settings.stateWritesPerSecond;
  const std::uint32_t user = connection.peer().userNumber();
  if (perSecond == 0 || user == superuser) {
    return;
  }
  using std::chrono::microseconds;
  auto wait = std::chrono::ceil<microseconds>(stateWrites.step(user, perSecond));
  while (wait > wait.zero()) {
    const auto slept = std::min<microseconds>(wait, std::chrono::minutes(1));
    clock::sleepMicroseconds(static_cast<std::uint32_t>(slept.count()));
    wait -= slept;
  }
}

void deliver(KelvaneExportedObject& object, Pace& stateWrites, Refusals& refusals, const ipc::Request& request) {
  namespace protocol = KelvaneClientProtocol;
  if (!peerMayCall(request.connection.peer(), ruledCall(request))) {
    refusals.tellLeftOut(resumeName, request.connection.peer(), request.operation.member);
    request.reply.sendError(accessDenied, "The entitlement rules allow no such call");
    return;
  }
  const DeliveryScope scope(request.connection);
  const ipc::Operation* operation = &request.operation;
  const auto replyValue = [reply = request.reply](const Value& value) { reply.send(value); };
  const auto replyDone = [reply = request.reply] { reply.send(); };

  if (operation == &protocol::clientCheckin) {
    const std::string& identifier = *request.value(0).string();
    if (isAnothers(object, identifier, request.connection)) {
      KELVANE_ERROR("%s refused a check-in as %@, which is another user's: %@", resumeName, identifier,
                    request.connection.peer().description());
      answerCheckin(request.reply, {}, KelvaneExportedObject::CheckinError::notOwned());
      return;
    }
    object.clientCheckin(identifier, request.endpoint(1), request.value(2),
                         [reply = request.reply](const Value& dictionary, const auto& error) {
                           answerCheckin(reply, dictionary, error);
                         });
  } else if (operation == &protocol::clientPurgeableSpace) {
    object.clientPurgeableSpace(request.value(0), replyValue);
  } else if (operation == &protocol::clientItemizedPurgeableSpace) {
    object.clientItemizedPurgeableSpace(request.value(0), replyValue);
  } else if (operation == &protocol::clientPurge) {
    object.clientPurge(request.value(0), replyValue);
  } else if (operation == &protocol::clientCancelPurge) {
    object.clientCancelPurge(request.value(0), replyDone);
  } else if (operation == &protocol::clientSetState) {
    awaitTurn(stateWrites, request.connection);
    object.clientSetState(request.value(0), *request.value(1).string(),
                          [reply = request.reply](const std::optional<KelvaneExportedObject::StateError>& error) {
                            answerSet(reply, error);
                          });
  } else if (operation == &protocol::clientGetState) {
    object.clientGetState(request.value(0), replyValue);
  }
}

}  // namespace

const ipc::Connection& currentConnection() {
  if (deliveredConnection == nullptr) {
    std::fputs("no request is being delivered on this thread\n", stderr);
    std::abort();
  }
  return *deliveredConnection;
}

std::unique_ptr<KelvaneListener> KelvaneListener::daemonListenerWithExportedObject(KelvaneExportedObject& object) {
  setEntitlementRules(EntitlementRules::read());
  return std::unique_ptr<KelvaneListener>(new KelvaneListener(object));
}

KelvaneListener::KelvaneListener(KelvaneExportedObject& object)
    : refusals_(std::make_shared<Refusals>()),
      listener_(ipc::Listener::named(
          names::daemon, KelvaneClientProtocol::interface,
          [&object, stateWrites = std::make_shared<Pace>(), refusals = refusals_](const ipc::Request& request) {
            deliver(object, *stateWrites, *refusals, request);
          })) {}

void KelvaneListener::addRequiredEntitlement(const std::string& entitlement) {
  requiredEntitlements_.push_back(entitlement);
}

void KelvaneListener::resume() {
  listener_.setAdmission([required = requiredEntitlements_, refusals = refusals_](const ipc::Peer& peer) {
    const auto lacking = std::ranges::find_if(
        required, [&peer](const std::string& entitlement) { return !peerIsEntitled(peer, {entitlement}); });
    if (lacking != required.end()) {
      refusals->tellLack(resumeName, "connection", peer, *lacking);
    }
    return lacking == required.end();
  });
  if (const auto error = listener_.resume()) {
    // Whatever the log's threshold: these are the process's last words.
    writeLog(errorLevel, "%s unable to listen: %@", resumeName, *error);
    exitImmediately(EXIT_FAILURE);
  }
}

void KelvaneListener::readRulesAgain() {
  setEntitlementRules(EntitlementRules::read());
  listener_.readmit();
}

}  // namespace kelvane
