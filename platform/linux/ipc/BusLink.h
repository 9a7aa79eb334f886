// SPDX-License-Identifier: Apache-2.0
// One connected socket that speaks D-Bus.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <span>

#include "platform/linux/ipc/EventLoop.h"
#include "platform/linux/ipc/Handshake.h"
#include "platform/linux/ipc/LibraryInput.h"
#include "platform/linux/ipc/PeerInput.h"
#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::ipc {

/// Drives a bus object of the library by hand, because what the library offers for that costs time in
/// proportion to all connections and can miss a first message. Owned by a channel; lives on the event
/// loop's thread. The library writes to the socket, but reads only what the link gives it: whole messages, without
/// their descriptors.
///
/// It ends once: by close(), or by the peer, which is told to the owner after everything that had arrived
/// before was.
class BusLink final : private EventLoop::Source {
 public:
  class Owner {
   public:
    /// The handshake is over: calls that carry descriptors can be sent now.
    virtual void linkOpened() = 0;
    /// A message of this many bytes, which is freed afterwards, and the descriptor that came with it, if any did: then
    /// the message has numbers (0) where it is among the arguments.
    virtual void linkReceived(sd_bus_message* message, std::size_t bytes, FileDescriptor descriptor) = 0;
    /// A message has arrived in part, which is to have this many bytes, as far as is known; 0 when none has any more.
    virtual void linkReceivedPart(std::size_t bytes) = 0;
    /// So many messages, which take this much, wait now for the peer to read.
    virtual void linkUnsent(std::size_t messages, std::size_t bytes) = 0;
    /// To be followed by close().
    virtual void linkEnded() = 0;

   protected:
    ~Owner() = default;
  };

  BusLink(EventLoop& loop, LibraryInput& library, Owner& owner) : loop_(loop), library_(library), owner_(owner) {}
  ~BusLink() { close(); }
  BusLink(const BusLink&) = delete;
  BusLink& operator=(const BusLink&) = delete;

  /// Starts the handshake on a connected socket; false when the system refuses. The peer may send descriptors, at
  /// most one with each message, when they are taken.
  [[nodiscard]] bool open(FileDescriptor socket, const Handshake& handshake, bool takesDescriptors);
  /// The owner is told nothing more.
  void close();

  bool isOpen() const { return bus_ != nullptr && !closing_; }
  bool isReady() const { return isOpen() && !handshake_; }
  /// Whether messages wait for the peer to read.
  bool hasUnsent() const { return !unsent_.empty(); }
  /// Whether the socket takes at least the beginning of a message now.
  bool hasRoom() const;
  /// Tells the owner by linkUnsent() when there is room again.
  void awaitRoom();
  /// How many bytes, about, are in the socket that the peer has not taken.
  std::size_t untaken() const;
  /// Grows whenever the socket takes something.
  std::uint64_t moves() const { return moves_; }
  /// For making messages, while isOpen().
  sd_bus* bus() const { return bus_; }

  /// Whether the peer has hung up, which the owner will be told when all that it sent was read.
  bool isEnding() const { return !isOpen() || hungUp_ || sd_bus_is_open(bus_) <= 0; }

  /// Sends a message and frees it; bytes is about how long it is. The message's cookie, or none when it was
  /// not sent: because the link isEnding(), or because that message is too long for any peer.
  std::optional<std::uint64_t> send(sd_bus_message* message, std::size_t bytes);

  /// Leaves what arrives in the socket, but still notices when the peer hangs up.
  void pauseReading(bool paused);
  /// Has the loop look for hang-ups of this link before it delivers requests.
  void watchHangUpFirst();

 private:
  void ready(std::uint32_t events) override;
  enum class Step { Taken, Incomplete, Failed };
  bool process(std::uint32_t events);
  bool runLibrary(int turns);
  bool isWriting() const;
  Step takeLine();
  Step takeMessage();
  bool giveMessage(std::span<const std::uint8_t> bytes);
  std::size_t wantedBytes() const;
  void countPart();
  void tellPart(std::size_t bytes);
  void countUnsent(bool roomCame);
  void refreshEvents();
  void startHandshakeTimer();
  void stopHandshakeTimer();
  void destroy();
  static int receive(sd_bus_message* message, void* link, sd_bus_error* error);

  EventLoop& loop_;
  LibraryInput& library_;
  Owner& owner_;
  sd_bus* bus_ = nullptr;
  int socket_ = -1;
  std::uint32_t events_ = 0;
  /// Until it is over.
  std::optional<Handshake> handshake_;
  PeerInput input_;
  /// The message that the library is making, what came with it, and whether it is made.
  std::size_t messageBytes_ = 0;
  FileDescriptor descriptor_;
  bool received_ = false;
  std::optional<EventLoop::Timer> handshakeTimer_;
  /// What the messages take that are in the library's queue, which tells only how many they are.
  std::list<std::size_t> unsent_;
  std::size_t unsentBytes_ = 0;
  std::size_t sendBufferBytes_ = 0;
  std::uint64_t moves_ = 0;
  bool awaitsRoom_ = false;
  bool inPart_ = false;
  bool paused_ = false;
  bool hungUp_ = false;
  bool processing_ = false;
  bool closing_ = false;
};

}  // namespace kelvane::ipc
