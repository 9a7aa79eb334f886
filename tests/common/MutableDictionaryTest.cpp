// SPDX-License-Identifier: Apache-2.0
// Dictionaries that several holders share and see change.
#include "platform/MutableDictionary.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kelvane {
namespace {

TEST(AMutableDictionary, BeginsEmptyOrWithTheEntriesGiven) {
  EXPECT_TRUE(MutableDictionary().snapshot()->empty());
  EXPECT_TRUE(MutableDictionary(Value("no dictionary")).snapshot()->empty());
  EXPECT_TRUE(MutableDictionary(Value()).snapshot()->empty());
  EXPECT_EQ(MutableDictionary(Value(Value::Dictionary{{"k", 1}}))["k"], Value(1));
}

TEST(AMutableDictionary, StoresReplacesAndRemoves) {
  MutableDictionary dictionary;
  dictionary.set("a", 1);
  dictionary.set("b", 2);
  dictionary.set("a", 3);
  dictionary.remove("b");
  dictionary.remove("never there");
  EXPECT_EQ(Value(dictionary), Value(Value::Dictionary{{"a", 3}}));
  EXPECT_TRUE(dictionary["b"].isAbsent());
}

TEST(AMutableDictionary, RemovesAnEntrySetToAbsent) {
  MutableDictionary dictionary(Value(Value::Dictionary{{"k", 1}}));
  dictionary.set("k", Value());
  dictionary.set("l", Value());
  EXPECT_TRUE(dictionary.snapshot()->empty());
}

TEST(ASnapshot, StaysAsItWas) {
  MutableDictionary dictionary(Value(Value::Dictionary{{"k", 1}}));
  const auto before = dictionary.snapshot();
  dictionary.set("k", 2);
  const auto between = dictionary.snapshot();
  dictionary.remove("k");
  EXPECT_EQ(before->at("k"), Value(1));
  EXPECT_EQ(between->at("k"), Value(2));
  EXPECT_TRUE(dictionary.snapshot()->empty());
}

TEST(ASnapshot, IsTheSameOneUntilSomethingChanges) {
  MutableDictionary dictionary(Value(Value::Dictionary{{"k", 1}}));
  const auto first = dictionary.snapshot();
  dictionary.remove("never there");
  EXPECT_EQ(dictionary.snapshot(), first);
  dictionary.set("k", 2);
  EXPECT_NE(dictionary.snapshot(), first);
}

TEST(ACopyOfAMutableDictionary, IsTheSameDictionary) {
  MutableDictionary dictionary;
  const MutableDictionary same = dictionary;
  const MutableDictionary other = dictionary.copied();
  dictionary.set("k", 1);
  EXPECT_EQ(same["k"], Value(1));
  EXPECT_TRUE(other["k"].isAbsent());
}

TEST(ACopiedDictionary, BeginsWithTheSameEntriesAndGoesItsOwnWay) {
  const MutableDictionary dictionary(Value(Value::Dictionary{{"k", 1}}));
  MutableDictionary copied = dictionary.copied();
  EXPECT_EQ(copied["k"], Value(1));
  copied.set("k", 2);
  EXPECT_EQ(dictionary["k"], Value(1));
}

TEST(AValueOfAMutableDictionary, ShowsLaterChanges) {
  MutableDictionary info;
  MutableDictionary result;
  result.set("info", info);
  const Value value = result;
  const auto snapshot = value.dictionary();
  info.set("amount", 5);
  EXPECT_EQ(value["info"]["amount"], Value(5));
  EXPECT_EQ(snapshot->at("info")["amount"], Value(5));
  EXPECT_TRUE(value["info"].contains("amount"));
}

TEST(AValueOfAMutableDictionary, OutlivesTheDictionary) {
  Value value;
  {
    MutableDictionary dictionary;
    dictionary.set("k", 1);
    value = dictionary;
  }
  EXPECT_EQ(value["k"], Value(1));
}

TEST(AValueOfAMutableDictionary, EqualsADictionaryOfTheSameEntries) {
  MutableDictionary live;
  const Value value = live;
  EXPECT_EQ(value, Value(Value::Dictionary{}));
  live.set("k", 1);
  EXPECT_EQ(value, Value(Value::Dictionary{{"k", 1}}));
  EXPECT_EQ(Value(Value::Dictionary{{"k", 1}}), value);
  EXPECT_EQ(value, Value(live.copied()));
  EXPECT_NE(value, Value(Value::Dictionary{}));
  EXPECT_NE(value, Value(1));
  EXPECT_NE(Value(), value);
}

TEST(AMutableDictionary, LosesNoChangeOfSeveralThreads) {
  constexpr int threadCount = 4;
  constexpr int rounds = 500;
  MutableDictionary shared;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < threadCount; ++thread) {
    threads.emplace_back([shared, thread]() mutable {
      const std::string own = "thread " + std::to_string(thread);
      for (int round = 1; round <= rounds; ++round) {
        shared.set(own, round);
        shared.set("contested", thread);
        // Each reading is of one moment, and of nobody's but the threads' making.
        const auto snapshot = shared.snapshot();
        if (shared[own] != Value(round) || snapshot->at(own) != Value(round) || snapshot->size() > threadCount + 1) {
          shared.set("failed", own);
        }
        shared.remove("contested");
        if (round % 50 == 0) {
          shared.set("copy", Value());
          (void)shared.copied();
          (void)Value(shared).description();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  Value::Dictionary expected;
  for (int thread = 0; thread < threadCount; ++thread) {
    expected.emplace("thread " + std::to_string(thread), rounds);
  }
  EXPECT_EQ(Value(shared), Value(expected));
}

}  // namespace
}  // namespace kelvane
