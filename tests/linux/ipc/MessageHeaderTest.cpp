// SPDX-License-Identifier: Apache-2.0
// The header of a message, before the library has seen it.
#include "platform/linux/ipc/MessageHeader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane {
namespace {

using std::string_view_literals::operator""sv;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t pathField = 1;
constexpr std::uint8_t memberField = 3;
constexpr std::uint8_t signatureField = 8;
constexpr std::uint8_t descriptorsField = 9;
constexpr std::uint32_t largest = 0xffffffff;
/// Reads as what is to be rewritten in a header, and must stay.
constexpr std::string_view body = "hhhhhhhh\x09\x01u\0\x01\0\0\0\x08\x01g\0\x01h\0"sv;

void append(Bytes& bytes, std::uint32_t number, char order) {
  for (int index = 0; index < 4; ++index) {
    bytes.push_back(static_cast<std::uint8_t>(number >> 8 * (order == 'B' ? 3 - index : index)));
  }
}

std::uint32_t numberAt(const Bytes& bytes, std::size_t at) {
  std::uint32_t number = 0;
  for (std::size_t index = 0; index < 4; ++index) {
    number = number << 8 | bytes[at + (bytes[0] == 'B' ? index : 3 - index)];
  }
  return number;
}

/// Makes messages, also such as no library makes.
class Header {
 public:
  explicit Header(char order = 'l') : order_(order) {}

  /// The variant's signature is this letter, and says that it has so many.
  Header& start(std::uint8_t code, char type, std::uint8_t letters = 1) {
    fields_.resize((fields_.size() + 7) / 8 * 8);
    fields_.insert(fields_.end(), {code, letters, static_cast<std::uint8_t>(type), 0});
    return *this;
  }
  Header& number(std::uint8_t code, std::uint32_t value, char type = 'u', std::uint8_t letters = 1) {
    start(code, type, letters);
    append(fields_, value, order_);
    return *this;
  }
  Header& descriptors(std::uint32_t count) { return number(descriptorsField, count); }
  Header& textOfLength(std::uint32_t length, std::uint8_t code, std::string_view text, char type = 's') {
    return number(code, length, type).end(text);
  }
  Header& text(std::uint8_t code, std::string_view text, char type = 's') {
    return textOfLength(static_cast<std::uint32_t>(text.size()), code, text, type);
  }
  Header& signatureOfLength(std::size_t length, std::uint8_t code, std::string_view text) {
    start(code, 'g').fields_.push_back(static_cast<std::uint8_t>(length));
    return end(text);
  }
  Header& signature(std::string_view text) { return signatureOfLength(text.size(), signatureField, text); }

  Header& cutTo(std::size_t size) {
    fields_.resize(size);
    return *this;
  }

  /// With a fields' length that is wrong by so much.
  Bytes message(std::uint32_t wrongBy = 0) const {
    Bytes bytes{static_cast<std::uint8_t>(order_), 1, 0, 1};
    append(bytes, static_cast<std::uint32_t>(body.size()), order_);
    append(bytes, 1, order_);
    append(bytes, static_cast<std::uint32_t>(fields_.size()) + wrongBy, order_);
    bytes.insert(bytes.end(), fields_.begin(), fields_.end());
    bytes.resize((bytes.size() + 7) / 8 * 8);
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
  }
  /// Nothing after the fields, so that whatever reads on reads outside.
  Bytes messageWithoutBody(std::uint32_t wrongBy = 0) const {
    Bytes bytes = message(wrongBy);
    bytes.resize(ipc::messageHeaderBytes + fields_.size());
    return bytes;
  }

 private:
  Header& end(std::string_view text) {
    fields_.insert(fields_.end(), text.begin(), text.end());
    fields_.push_back(0);
    return *this;
  }

  char order_;
  Bytes fields_;
};

/// In memory that ends where the message does.
bool isAccepted(const Bytes& message) {
  Bytes copy(message.begin(), message.end());
  return ipc::hideDescriptor(copy);
}

Header call(char order, std::string_view signature, std::uint32_t descriptors) {
  return Header(order)
      .text(pathField, "/h/h", 'o')
      .signature(signature)
      .text(memberField, "hhh")
      .descriptors(descriptors);
}

TEST(AMessageHeader, TellsTheLengthOfItsMessageInEitherByteOrder) {
  for (const char order : {'l', 'B'}) {
    Bytes message = call(order, "sha{sv}", 1).message();
    EXPECT_EQ(ipc::messageLength(message), message.size()) << order;
    std::fill(message.begin() + 4, message.end(), std::uint8_t{0xff});
    EXPECT_EQ(ipc::messageLength(message), 16 + 0x100000000 + std::size_t{largest}) << order;
  }
  EXPECT_EQ(ipc::messageLength(call('L', "", 1).message()), std::nullopt);
  EXPECT_EQ(ipc::messageLength(Bytes(ipc::messageHeaderBytes)), std::nullopt);
}

TEST(AMessageHeader, HasANumberForItsDescriptorAndCountsNoneInEitherByteOrder) {
  for (const char order : {'l', 'B'}) {
    Bytes message = call(order, "hsha{sv}h", 1).message();
    EXPECT_TRUE(ipc::hideDescriptor(message)) << order;
    EXPECT_EQ(message, call(order, "usua{sv}u", 0).message()) << order;
  }
}

TEST(AMessageHeader, IsAcceptedIfAllItsFieldsTogetherCountOneDescriptor) {
  struct {
    std::vector<std::uint32_t> counts;
    bool isAccepted;
  } const cases[] = {
      {{}, false},           {{0}, false},          {{1}, true},     {{2}, false},          {{256}, false},
      {{0x1000000}, false},  {{largest}, false},    {{1, 0}, true},  {{0, 1}, true},        {{1, 1}, false},
      {{1, largest}, false}, {{largest, 2}, false}, {{0, 0}, false}, {{largest, 1}, false},
  };
  for (const auto& [counts, isRight] : cases) {
    Header header;
    Header hidden;
    for (const std::uint32_t count : counts) {
      header.descriptors(count);
      hidden.descriptors(0);
    }
    Bytes message = header.message();
    EXPECT_EQ(ipc::hideDescriptor(message), isRight) << testing::PrintToString(counts);
    EXPECT_TRUE(!isRight || message == hidden.message()) << testing::PrintToString(counts);
  }
}

TEST(AMessageHeader, CountsDescriptorsOnlyInANumberOfTheirField) {
  EXPECT_FALSE(isAccepted(Header().text(descriptorsField, "", 's').message()));
  EXPECT_FALSE(isAccepted(Header().text(descriptorsField, "h", 's').message()));
  EXPECT_FALSE(isAccepted(Header().text(descriptorsField, "h", 'o').message()));
  EXPECT_FALSE(isAccepted(Header().signatureOfLength(1, descriptorsField, "h").message()));
  EXPECT_FALSE(isAccepted(Header().number(signatureField, 1).message()));
  const auto others = [] {
    return Header().text(descriptorsField, "h").signatureOfLength(1, descriptorsField, "h").number(5, 1);
  };
  Bytes message = others().descriptors(1).message();
  EXPECT_TRUE(ipc::hideDescriptor(message));
  EXPECT_EQ(message, others().descriptors(0).message());
}

TEST(AMessageHeader, WithFieldsThatNoSenderHasAUseForIsRefused) {
  for (const char type : {'a', 'v', 'h', 'i', 't', 'y', '(', '\0'}) {
    EXPECT_FALSE(isAccepted(Header().descriptors(1).number(10, 0, type).message())) << type;
    EXPECT_FALSE(isAccepted(Header().number(10, 0, type).descriptors(1).message())) << type;
    EXPECT_FALSE(isAccepted(Header().text(10, "", type).descriptors(1).message())) << type;
  }
  for (const std::uint8_t letters : Bytes{0, 2, 255}) {
    EXPECT_FALSE(isAccepted(Header().descriptors(1).number(5, 1, 'u', letters).message())) << int{letters};
    EXPECT_FALSE(isAccepted(Header().number(descriptorsField, 1, 'u', letters).message())) << int{letters};
  }
}

TEST(AMessageHeader, WithoutFieldsIsRefused) {
  EXPECT_FALSE(isAccepted(Header().message()));
  EXPECT_FALSE(isAccepted(Header().messageWithoutBody()));
}

TEST(AMessageHeader, ThatIsIncompleteIsRefused) {
  const Bytes whole = Header().text(memberField, "member").signature("h").descriptors(1).messageWithoutBody();
  EXPECT_TRUE(isAccepted(whole));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(isAccepted(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)))) << size;
  }
}

TEST(AMessageHeader, WhoseFieldsEndElsewhereThanTheirLengthSaysIsRefused) {
  const Header header = Header().signature("h").descriptors(1);
  EXPECT_TRUE(isAccepted(header.message()));
  for (std::uint32_t by = 1; by < 8; ++by) {
    EXPECT_FALSE(isAccepted(header.message(by))) << by;
    EXPECT_FALSE(isAccepted(header.message(-by))) << by;
  }
  // The last makes it the largest number.
  for (const std::uint32_t by : {1U, 4U, 8U, 0x7fffffffU, largest - 16}) {
    EXPECT_FALSE(isAccepted(header.messageWithoutBody(by))) << by;
  }
}

TEST(AMessageHeader, WhoseTextsReachBeyondItsFieldsIsRefused) {
  for (const char type : {'s', 'o'}) {
    const auto ofLength = [type](std::uint32_t length) {
      return Header().descriptors(1).textOfLength(length, memberField, "member", type);
    };
    EXPECT_TRUE(isAccepted(ofLength(6).messageWithoutBody()));
    for (const std::uint32_t length : {7U, 8U, 255U, 0x7fffffffU, largest - 1, largest}) {
      EXPECT_FALSE(isAccepted(ofLength(length).message())) << length;
      EXPECT_FALSE(isAccepted(ofLength(length).messageWithoutBody())) << length;
    }
  }
  // A length of which 2^32 - 1 and the end make nothing.
  EXPECT_FALSE(isAccepted(Header().number(memberField, largest, 's').descriptors(1).message()));
  const auto ofLength = [](std::size_t length) {
    return Header().descriptors(1).signatureOfLength(length, signatureField, "sha{sv}");
  };
  EXPECT_TRUE(isAccepted(ofLength(7).messageWithoutBody()));
  for (const std::size_t length : {8U, 9U, 254U, 255U}) {
    EXPECT_FALSE(isAccepted(ofLength(length).message())) << length;
    EXPECT_FALSE(isAccepted(ofLength(length).messageWithoutBody())) << length;
  }
}

TEST(AMessageHeader, IsAcceptedOnlyIfItEndsWithAField) {
  const Header whole = Header().descriptors(1).text(memberField, "member").signature("h");
  for (std::size_t size = 0; size <= 31; ++size) {
    const bool isEndOfField = size == 8 || size == 23 || size == 31;
    EXPECT_EQ(isAccepted(Header(whole).cutTo(size).messageWithoutBody()), isEndOfField) << size;
  }
}

/// Any fields, some of them damaged, and then any bytes.
Bytes randomMessage(std::mt19937& random) {
  const auto below = [&random](std::uint32_t bound) { return static_cast<std::uint32_t>(random() % bound); };
  Header header(below(2) == 0 ? 'l' : 'B');
  for (std::uint32_t count = below(6); count > 0; --count) {
    const auto code = static_cast<std::uint8_t>(below(11));
    const std::string text(below(12), 'h');
    switch (below(4)) {
      case 0:
        header.text(code, text, "so"[below(2)]);
        break;
      case 1:
        header.signature(text);
        break;
      case 2:
        header.number(code, below(largest));
        break;
      default:
        header.descriptors(below(2));
    }
  }
  Bytes message = header.message();
  for (std::uint32_t count = below(4); count > 0; --count) {
    message[1 + below(static_cast<std::uint32_t>(message.size() - 1))] = static_cast<std::uint8_t>(below(256));
  }
  if (below(4) == 0) {
    message.resize(below(static_cast<std::uint32_t>(message.size())));
  } else if (below(4) == 0) {
    std::generate(message.begin() + 16, message.end(), [&below] { return "\0\1\10\11ughs"[below(8)]; });
  }
  return message;
}

/// Checks the fields of a header that was accepted.
void expectNoDescriptor(const Bytes& message) {
  const std::size_t end = 16 + numberAt(message, 12);
  for (std::size_t at = 16; at < end;) {
    const std::uint8_t code = message[at];
    const std::uint8_t type = message[at + 2];
    at += 4;
    const std::size_t value = type == 'g' ? message[at] : numberAt(message, at);
    EXPECT_TRUE(type != 'u' || code != descriptorsField || value == 0);
    if (type == 'g' && code == signatureField) {
      EXPECT_EQ(std::count(&message[at + 1], &message[at + 1 + value], 'h'), 0);
    }
    at += type == 'u' ? 4 : type == 'g' ? value + 2 : value + 5;
    at = (at + 7) / 8 * 8;
  }
}

TEST(AMessageHeader, OfAnyBytesIsRefusedOrComesOutWithoutDescriptorsAndWithItsBodyAsItWas) {
  std::mt19937 random(20);
  int accepted = 0;
  for (int count = 0; count < 20'000 && !testing::Test::HasFailure(); ++count) {
    const Bytes before = randomMessage(random);
    Bytes after(before.begin(), before.end());
    const bool isRight = ipc::hideDescriptor(after);
    const std::size_t headerEnd =
        before.size() < 16 ? 0 : std::min<std::size_t>(before.size(), 16 + std::size_t{numberAt(before, 12)});
    const std::size_t fieldsStart = std::min<std::size_t>(before.size(), 16);
    EXPECT_TRUE(std::equal(before.begin(), before.begin() + static_cast<std::ptrdiff_t>(fieldsStart), after.begin()));
    EXPECT_TRUE(std::equal(before.begin() + static_cast<std::ptrdiff_t>(headerEnd), before.end(),
                           after.begin() + static_cast<std::ptrdiff_t>(headerEnd)));
    if (isRight) {
      ++accepted;
      expectNoDescriptor(after);
    }
  }
  EXPECT_GT(accepted, 1'000);
}

}  // namespace
}  // namespace kelvane
