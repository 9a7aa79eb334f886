// SPDX-License-Identifier: Apache-2.0
// The object that a KelvaneListener exports: the implementation of KelvaneClientProtocol.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "platform/Ipc.h"
#include "platform/Value.h"

namespace kelvane {

/// One function per operation of KelvaneClientProtocol, and ownerOf(). Each is called on a thread that delivers
/// requests and may block; requests of one connection come one at a time. While it runs, currentConnection() is the
/// connection of the request.
///
/// A reply may be called from any thread, then or later; a reply that is never called leaves the client
/// without an answer.
class KelvaneExportedObject {
 public:
  /// Given a result, or absent for none.
  using ValueReply = std::function<void(const Value&)>;
  /// Why a service was not checked in, in words.
  struct CheckinError {
    enum class Cause : char {
      TooMuch,   ///< it has passed a limit
      NotOwned,  ///< the identifier belongs to another user
    };
    Cause cause;
    std::string text;

    static CheckinError notOwned() { return {Cause::NotOwned, "The identifier belongs to another user"}; }
  };
  /// Absent with an error, and for none.
  using CheckinReply = std::function<void(const Value& dictionary, const std::optional<CheckinError>& error)>;
  using Reply = std::function<void()>;

  /// Why a state value was not stored, in words.
  struct StateError {
    enum class Cause : char {
      TooMuch,     ///< a limit would be passed; the state is as it was
      Unstorable,  ///< it is no value that can be stored; the state is as it was
      NotWritten,  ///< the disk would not take it
    };
    Cause cause;
    std::string text;
  };
  /// Without an error when the value is stored.
  using SetReply = std::function<void(const std::optional<StateError>&)>;

  virtual ~KelvaneExportedObject() = default;

  /// The number of the user who alone may check in with the identifier; none when it is anybody's.
  virtual std::optional<std::uint32_t> ownerOf(const std::string& identifier) const = 0;

  virtual void clientCheckin(const std::string& identifier, const ipc::Endpoint& endpoint, const Value& info,
                             CheckinReply reply) = 0;
  virtual void clientPurgeableSpace(const Value& info, ValueReply replyBlock) = 0;
  virtual void clientItemizedPurgeableSpace(const Value& info, ValueReply replyBlock) = 0;
  virtual void clientPurge(const Value& info, ValueReply replyBlock) = 0;
  virtual void clientCancelPurge(const Value& info, Reply replyBlock) = 0;
  virtual void clientSetState(const Value& value, const std::string& key, SetReply replyBlock) = 0;
  virtual void clientGetState(const Value& key, ValueReply replyBlock) = 0;
};

/// The connection of the request that the calling thread is delivering. Calling it elsewhere stops the process.
const ipc::Connection& currentConnection();

}  // namespace kelvane
