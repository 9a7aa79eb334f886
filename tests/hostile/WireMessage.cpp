// SPDX-License-Identifier: Apache-2.0
// Messages made by hand, and so free to be wrong.
#include "tests/hostile/WireMessage.h"

#include <gtest/gtest.h>

#include "protocols/KelvaneClientProtocol.h"
#include "protocols/Keys.h"

namespace kelvane::test {

namespace {

constexpr std::uint8_t methodCall = 1;
constexpr std::uint8_t methodReturn = 2;
constexpr std::uint8_t noReplyExpected = 1;

enum Field : std::uint8_t { Path = 1, Interface = 2, Member = 3, ReplySerial = 5, Signature = 8, Descriptors = 9 };

void appendField(WireBytes& fields, Field field, std::string_view type, std::string_view text) {
  fields.align(8);
  fields.byte(field);
  fields.signature(type);
  type == "g" ? fields.signature(text) : fields.string(text);
}

void appendField(WireBytes& fields, Field field, std::uint32_t number) {
  fields.align(8);
  fields.byte(field);
  fields.signature("u");
  fields.number(number);
}

std::string header(std::uint8_t type, std::uint8_t flags, std::uint32_t bodyBytes, std::uint32_t serial,
                   const WireBytes& fields) {
  WireBytes bytes;
  bytes.byte('l');
  bytes.byte(type);
  bytes.byte(flags);
  bytes.byte(1);
  bytes.number(bodyBytes);
  bytes.number(serial);
  bytes.number(static_cast<std::uint32_t>(fields.size()));
  bytes.append(fields.bytes());
  bytes.align(8);
  return bytes.bytes();
}

}  // namespace

void WireBytes::number(std::uint32_t value) {
  align(4);
  for (int shift = 0; shift < 32; shift += 8) {
    byte(static_cast<std::uint8_t>(value >> shift));
  }
}

void WireBytes::string(std::string_view text) {
  number(static_cast<std::uint32_t>(text.size()));
  append(text);
  byte(0);
}

void WireBytes::signature(std::string_view text) {
  byte(static_cast<std::uint8_t>(text.size()));
  append(text);
  byte(0);
}

std::string WireCall::bytes() const {
  WireBytes fields;
  appendField(fields, Path, "o", KelvaneClientProtocol::interface.objectPath);
  appendField(fields, Interface, "s", KelvaneClientProtocol::interface.name);
  appendField(fields, Member, "s", member);
  appendField(fields, Signature, "g", signature);
  if (descriptors != 0) {
    appendField(fields, Descriptors, descriptors);
  }
  const auto bodyBytes = static_cast<std::uint32_t>(body.size());
  return header(methodCall, expectsReply ? 0 : noReplyExpected, declaredBodyBytes.value_or(bodyBytes), serial, fields) +
         body;
}

std::string answerTo(std::uint32_t serial) {
  WireBytes fields;
  appendField(fields, ReplySerial, serial);
  appendField(fields, Signature, "g", "v");
  WireBytes entry;
  entry.string(keys::amount);
  entry.signature("u");
  entry.number(1);
  WireBytes body;
  body.signature("a{sv}");
  body.number(static_cast<std::uint32_t>(entry.size()));
  body.align(8);
  body.append(entry.bytes());
  return header(methodReturn, noReplyExpected, static_cast<std::uint32_t>(body.size()), serial + 1, fields) +
         body.bytes();
}

std::string answerTo(const Message& call) {
  std::uint64_t cookie = 0;
  EXPECT_GE(sd_bus_message_get_cookie(call.get(), &cookie), 0);
  return answerTo(static_cast<std::uint32_t>(cookie));
}

}  // namespace kelvane::test
