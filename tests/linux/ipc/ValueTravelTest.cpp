// SPDX-License-Identifier: Apache-2.0
// Values on their way through D-Bus messages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/Limits.h"
#include "platform/linux/ipc/PrivateSockets.h"
#include "platform/linux/ipc/ValueDecoder.h"
#include "platform/linux/ipc/ValueEncoder.h"
#include "tests/linux/ipc/IpcTesting.h"
#include "tests/linux/ipc/RawClient.h"

namespace kelvane {
namespace {

using test::RawClient;
using test::SampleListener;
using testing::HasSubstr;

/// A message of no connection that ever is, for writing into and reading from.
class Message {
 public:
  Message() {
    sd_bus_new(&bus_);
    // Messages need a bus that was started; what it runs does not matter.
    sd_bus_set_exec(bus_, "/bin/true", nullptr);
    sd_bus_start(bus_);
    sd_bus_message_new_signal(bus_, &message_, "/sample", "com.example.Sample", "Sample");
  }
  ~Message() {
    sd_bus_message_unref(message_);
    sd_bus_close_unref(bus_);
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  sd_bus_message* get() { return message_; }
  sd_bus_message* sealed() {
    sd_bus_message_seal(message_, 1, 0);
    sd_bus_message_rewind(message_, 1);
    return message_;
  }

 private:
  sd_bus* bus_ = nullptr;
  sd_bus_message* message_ = nullptr;
};

struct Decoded {
  std::optional<Value> value;
  std::string error;
};

Decoded decoded(Message& message, std::size_t budget = SIZE_MAX) {
  ipc::ValueDecoder decoder(message.sealed(), limits::wireDictionaryDepth, budget);
  auto value = decoder.next();
  return {std::move(value), decoder.error()};
}

Value travelled(const Value& value) {
  Message message;
  ipc::ValueEncoder encoder(message.get());
  EXPECT_TRUE(encoder.appendVariant(value));
  const Decoded result = decoded(message);
  EXPECT_EQ(result.error, "");
  return result.value.value_or(Value("not decoded"));
}

TEST(AValueThatTravels, IsTheSameOfEveryType) {
  const Value values[] = {Value(),
                          Value(""),
                          Value("text \u00e9\u20ac\U0001F600"),
                          Value(true),
                          Value(false),
                          Value(std::numeric_limits<std::int64_t>::min()),
                          Value(std::int64_t{-1}),
                          Value(std::numeric_limits<std::uint64_t>::max()),
                          Value(0.5),
                          Value(-std::numeric_limits<double>::infinity()),
                          Value(Date{-1234.5}),
                          Value(Data{}),
                          Value(Data{0, 1, 255}),
                          Value(Value::Array{}),
                          Value(Value::Array{Value(1), Value("two"), Value(), Value(Value::Array{Value(3.0)})}),
                          Value(Value::Dictionary{}),
                          Value(Value::Dictionary{{"", Value(1)}, {"a", Value(Value::Dictionary{{"b", Value()}})}})};
  for (const Value& value : values) {
    const Value result = travelled(value);
    EXPECT_EQ(result, value) << value.description();
    EXPECT_EQ(result.isSigned(), value.isSigned());
    EXPECT_EQ(result.isUnsigned(), value.isUnsigned());
  }
}

TEST(AValueThatTravels, KeepsWhatIsNoNumber) {
  EXPECT_TRUE(std::isnan(travelled(Value(std::nan(""))).doubleValue()));
}

TEST(AValueThatTravels, HasNoBytesThatAreNoText) {
  EXPECT_EQ(travelled(Value(std::string("a\0b\xff", 4))), Value("a\uFFFDb\uFFFD"));
  EXPECT_EQ(travelled(Value(Value::Dictionary{{std::string("\xc0"), Value(1)}}))["\uFFFD"], Value(1));
}

Value dictionariesWithin(int count) {
  Value value("innermost");
  for (int level = 0; level < count; ++level) {
    value = Value(Value::Dictionary{{"in", value}});
  }
  return value;
}

TEST(AValueThatTravels, MayHaveTwentyDictionariesWithinEachOther) {
  const Value value = dictionariesWithin(limits::wireDictionaryDepth);
  EXPECT_EQ(travelled(value), value);
}

TEST(AValueThatTravels, IsRefusedWithOneDictionaryMore) {
  Message message;
  ipc::ValueEncoder encoder(message.get());
  ASSERT_TRUE(encoder.appendVariant(dictionariesWithin(limits::wireDictionaryDepth + 1)));
  const Decoded result = decoded(message);
  EXPECT_FALSE(result.value);
  EXPECT_THAT(result.error, HasSubstr("more than 20 dictionaries lie within each other (under \"in\")"));
}

TEST(AValueThatTravels, IsAbsentWhereItLiesTooDeepForDBus) {
  Message message;
  ipc::ValueEncoder encoder(message.get());
  ASSERT_TRUE(encoder.appendVariant(dictionariesWithin(limits::wireDictionaryDepth + 10)));
  ipc::ValueDecoder decoder(message.sealed(), 100, SIZE_MAX);
  auto value = decoder.next();
  ASSERT_TRUE(value) << decoder.error();
  int depth = 0;
  for (; value->isDictionary(); ++depth) {
    value = (*value)["in"];
  }
  EXPECT_EQ(depth, 21);
  EXPECT_TRUE(value->isAbsent());
}

template <typename... Arguments>
Decoded decodedFrom(const char* types, Arguments... arguments) {
  Message message;
  EXPECT_GE(sd_bus_message_append(message.get(), types, arguments...), 0) << types;
  return decoded(message);
}

TEST(AForeignValue, MayBeAnyIntegerOfDBus) {
  EXPECT_EQ(decodedFrom("v", "y", 200).value, Value(std::uint64_t{200}));
  EXPECT_EQ(decodedFrom("v", "n", -3).value, Value(-3));
  EXPECT_EQ(decodedFrom("v", "q", 60000).value, Value(std::uint64_t{60000}));
  EXPECT_EQ(decodedFrom("v", "i", -70000).value, Value(-70000));
  EXPECT_EQ(decodedFrom("v", "u", 4000000000U).value, Value(std::uint64_t{4000000000U}));
  EXPECT_EQ(decodedFrom("v", "x", std::int64_t{-5}).value, Value(-5));
  EXPECT_EQ(decodedFrom("v", "t", ~std::uint64_t{0}).value, Value(~std::uint64_t{0}));
  EXPECT_TRUE(decodedFrom("v", "i", 5).value->isSigned());
  EXPECT_TRUE(decodedFrom("v", "u", 5).value->isUnsigned());
}

TEST(AForeignValue, MayBeAnArrayOfOneType) {
  EXPECT_EQ(decodedFrom("v", "as", 2, "a", "b").value, Value(Value::Array{Value("a"), Value("b")}));
  EXPECT_EQ(decodedFrom("v", "ai", 2, 1, -1).value, Value(Value::Array{Value(1), Value(-1)}));
  EXPECT_EQ(decodedFrom("v", "ab", 1, 1).value, Value(Value::Array{Value(true)}));
  EXPECT_EQ(decodedFrom("v", "aay", 1, 2, 7, 8).value, Value(Value::Array{Value(Data{7, 8})}));
  EXPECT_EQ(decodedFrom("v", "a(d)", 1, 2.5).value, Value(Value::Array{Value(Date{2.5})}));
  EXPECT_EQ(decodedFrom("v", "as", 0).value, Value(Value::Array{}));
}

TEST(AForeignValue, MayBeAnyDictionaryOfStringKeys) {
  EXPECT_EQ(decodedFrom("v", "a{ss}", 1, "k", "v").value, Value(Value::Dictionary{{"k", Value("v")}}));
  EXPECT_EQ(decodedFrom("v", "a{sas}", 1, "k", 1, "v").value,
            Value(Value::Dictionary{{"k", Value(Value::Array{Value("v")})}}));
  EXPECT_EQ(decodedFrom("v", "a{sa{su}}", 1, "k", 1, "n", 3U).value,
            Value(Value::Dictionary{{"k", Value(Value::Dictionary{{"n", Value(std::uint64_t{3})}})}}));
}

TEST(AForeignValue, MayLieInSeveralVariants) {
  EXPECT_EQ(decodedFrom("v", "v", "v", "s", "text").value, Value("text"));
}

TEST(AForeignValue, MayBeAbsentAnywhere) {
  EXPECT_EQ(decodedFrom("v", "o", "/").value, Value());
  EXPECT_EQ(decodedFrom("v", "a{sv}", 1, "k", "o", "/").value, Value(Value::Dictionary{{"k", Value()}}));
}

TEST(AForeignValue, CountsTheLastOfSeveralEntriesUnderOneKey) {
  EXPECT_EQ(decodedFrom("v", "a{sv}", 3, "k", "i", 1, "l", "i", 2, "k", "i", 3).value,
            Value(Value::Dictionary{{"k", Value(3)}, {"l", Value(2)}}));
}

TEST(AForeignValue, IsRefusedOutsideTheMapping) {
  EXPECT_THAT(decodedFrom("v", "o", "/other").error, HasSubstr("an object path other than \"/\""));
  EXPECT_THAT(decodedFrom("v", "g", "a{sv}").error, HasSubstr("a signature stands for no value"));
  EXPECT_THAT(decodedFrom("v", "h", 0).error, HasSubstr("a file descriptor stands for no value"));
  EXPECT_THAT(decodedFrom("v", "(ss)", "a", "b").error, HasSubstr("a structure other than (d)"));
  EXPECT_THAT(decodedFrom("v", "a{is}", 1, 1, "v").error, HasSubstr("the keys of a dictionary are no strings"));
  EXPECT_THAT(decodedFrom("v", "a{sv}", 1, "name", "g", "s").error, HasSubstr("(under \"name\")"));
}

/// Appends arrays of variants within each other, with a byte in the innermost.
int appendArraysWithin(sd_bus_message* message, int count) {
  if (count == 0) {
    return sd_bus_message_append(message, "v", "y", 1);
  }
  int result = sd_bus_message_open_container(message, 'v', "av");
  result = std::min(result, sd_bus_message_open_container(message, 'a', "v"));
  result = std::min(result, appendArraysWithin(message, count - 1));
  sd_bus_message_close_container(message);
  sd_bus_message_close_container(message);
  return result;
}

TEST(AForeignValue, CanAlwaysBeWrittenAgain) {
  int deepest = 0;
  for (int count = 1; count < 40; ++count) {
    Message message;
    ASSERT_GE(appendArraysWithin(message.get(), count), 0);
    const Decoded result = decoded(message);
    if (result.value) {
      deepest = count;
      EXPECT_EQ(travelled(*result.value), *result.value);
    } else {
      EXPECT_THAT(result.error, HasSubstr("too deep"));
    }
  }
  EXPECT_EQ(deepest, 31);
}

TEST(AForeignValue, IsRefusedWhenItTakesTooMuchMemory) {
  Message message;
  ASSERT_GE(sd_bus_message_append(message.get(), "v", "as", 3, "a", "b", "c"), 0);
  const Decoded result = decoded(message, 200);
  EXPECT_FALSE(result.value);
  EXPECT_THAT(result.error, HasSubstr("too much memory"));
}

}  // namespace
}  // namespace kelvane
