// SPDX-License-Identifier: Apache-2.0
// What is said on a connection before its first message.
#include "platform/linux/ipc/Handshake.h"

#include "platform/Limits.h"

namespace kelvane::ipc {

namespace {

constexpr std::string_view lineEnd = "\r\n";
constexpr std::string_view hexDigits = "0123456789abcdef";
/// What messages are from; peers do not look at it.
constexpr char senderName[] = ":1.0";

std::string hexOf(const std::string& text) {
  std::string hex;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    hex += hexDigits[byte >> 4];
    hex += hexDigits[byte & 15];
  }
  return hex;
}

bool setUp(sd_bus* bus, bool isServer, bool takesDescriptors, int input, int socket) {
  sd_id128_t id;
  // What the peer says of itself is compared here: the library sees this process at the other end of its input.
  return sd_bus_negotiate_fds(bus, !isServer || takesDescriptors ? 1 : 0) >= 0 &&
         (!isServer || (sd_id128_randomize(&id) >= 0 && sd_bus_set_server(bus, 1, id) >= 0 &&
                        sd_bus_set_anonymous(bus, 1) >= 0 && sd_bus_set_sender(bus, senderName) >= 0)) &&
         sd_bus_set_fd(bus, input, socket) >= 0;
}

}  // namespace

std::string vouchedLine(std::string_view line, uid_t user) {
  const std::size_t start = line.starts_with('\0') ? 1 : 0;
  const std::string_view text = line.substr(start, line.size() - start - lineEnd.size());
  const std::string hex = hexOf(std::to_string(user));
  const auto isWord = [text](std::string_view word) {
    return text.starts_with(word) && (text.size() == word.size() || text[word.size()] == ' ');
  };
  for (const std::string_view word : {"AUTH EXTERNAL", "DATA"}) {
    if (isWord(word) && text.size() > word.size() && text.substr(word.size() + 1) != hex) {
      return std::string(line.substr(0, start)) + (word == "DATA" ? "CANCEL\r\n" : "AUTH\r\n");
    }
  }
  return std::string(isWord("AUTH ANONYMOUS") ? std::string(line.substr(0, start)) + "AUTH\r\n" : line);
}

sd_bus* Handshake::begin(FileDescriptor input, FileDescriptor socket, bool takesDescriptors) const {
  sd_bus* bus = nullptr;
  if (!input || sd_bus_new(&bus) < 0) {
    return nullptr;
  }
  if (!setUp(bus, role_ == Role::Server, takesDescriptors, input.get(), socket.get())) {
    return sd_bus_unref(bus);
  }
  [[maybe_unused]] const int owned[] = {input.release(), socket.release()};
  return sd_bus_start(bus) < 0 ? sd_bus_unref(bus) : bus;
}

Handshake::Arrival Handshake::takeLine(PeerInput& input, std::string& line) {
  const auto waiting = input.waiting();
  const std::string_view text(reinterpret_cast<const char*>(waiting.data()), waiting.size());
  const std::size_t end = text.find(lineEnd);
  const std::size_t length = end == std::string_view::npos ? text.size() : end + lineEnd.size();
  const bool isWrongStart = role_ == Role::Server && bytes_ == 0 && !text.empty() && text.front() != '\0';
  if (isWrongStart || bytes_ + length > limits::handshakeBytes || (length != 0 && input.takeDescriptor(length))) {
    return Arrival::Forbidden;
  }
  if (end == std::string_view::npos) {
    return Arrival::Incomplete;
  }
  bytes_ += length;
  line = role_ == Role::Server ? vouchedLine(text.substr(0, length), peer_) : std::string(text.substr(0, length));
  input.drop(length);
  return Arrival::Line;
}

}  // namespace kelvane::ipc
