// SPDX-License-Identifier: Apache-2.0
// What a program links to ask the daemon for space.
#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "platform/Ipc.h"
#include "platform/Value.h"

namespace kelvane {

/// What came of one request.
struct KelvaneClientResult {
  enum class Status {
    Answered,        ///< value is the answer
    Refused,         ///< a space request was answered with none: the caller lacks its entitlement
    NoDaemon,        ///< nobody listens
    NotAdmitted,     ///< the daemon is there and does not talk to this process
    ConnectionLost,  ///< before the answer came
    Failed,          ///< the daemon answered with an error
  };
  Status status;
  /// The daemon's answer; absent unless answered, and for what is answered with nothing.
  Value value;
  /// What went wrong, in words, where the status alone does not tell.
  std::string text;

  /// Of a request that ended in an error.
  static KelvaneClientResult of(const ipc::CallError& error);
};

/// One connection to the daemon.
///
/// It is made with the first request, once; when it has ended (the daemon went, disconnect()), every request fails and
/// a new client is needed. Each request comes in two forms. One returns at once and gives the result to a handler,
/// which runs once, on a thread of the IPC facility that may block. The other waits for the result, without limit: a
/// purge takes minutes. Any thread may call any function; requests of one client are answered in order where the daemon
/// works on them one at a time, so a program that cancels its own purge needs two clients.
class KelvaneClient {
 public:
  using Handler = std::function<void(const KelvaneClientResult&)>;

  KelvaneClient();
  /// Requests that are still waiting end as lost.
  ~KelvaneClient();
  KelvaneClient(const KelvaneClient&) = delete;
  KelvaneClient& operator=(const KelvaneClient&) = delete;

  /// Frees "KELVANE_AMOUNT" bytes on "KELVANE_VOLUME". The answer tells what came of it, under "KELVANE_AMOUNT",
  /// "KELVANE_FREESPACE_BEGIN" and "KELVANE_FREESPACE_END" among others.
  void purge(const Value& info, Handler handler) const;
  [[nodiscard]] KelvaneClientResult purge(const Value& info) const;

  /// What the services could free on "KELVANE_VOLUME": "KELVANE_TOTAL_AVAILABLE" and an entry per service.
  void purgeableSpace(const Value& info, Handler handler) const;
  [[nodiscard]] KelvaneClientResult purgeableSpace(const Value& info) const;
  /// The same under an entitlement of its own.
  void itemizedPurgeableSpace(const Value& info, Handler handler) const;
  [[nodiscard]] KelvaneClientResult itemizedPurgeableSpace(const Value& info) const;

  /// Names the purge by its "KELVANE_TOKEN". That it is answered does not mean that a purge was found.
  void cancelPurge(const Value& info, Handler handler) const;
  [[nodiscard]] KelvaneClientResult cancelPurge(const Value& info) const;

  /// Stores a value under a key, for good once answered; an absent value removes the entry.
  void setState(const Value& value, const std::string& key, Handler handler) const;
  [[nodiscard]] KelvaneClientResult setState(const Value& value, const std::string& key) const;
  /// Answers absent when nothing is stored.
  void getState(const std::string& key, Handler handler) const;
  [[nodiscard]] KelvaneClientResult getState(const std::string& key) const;

  /// Ends the connection; requests that are waiting end as lost.
  void disconnect() const;

 private:
  void send(const ipc::Operation& operation, ipc::Arguments arguments, bool mayBeRefused, Handler handler) const;

  const ipc::Connection connection_;
  mutable std::atomic<bool> isResumed_ = false;
};

}  // namespace kelvane
