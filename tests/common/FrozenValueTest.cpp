// SPDX-License-Identifier: Apache-2.0
// Freezing values: live views become what they show, everything else stays what it is.
#include "platform/common/FrozenValue.h"

#include <gtest/gtest.h>

#include "platform/Limits.h"
#include "platform/MutableDictionary.h"

namespace kelvane {
namespace {

TEST(AFrozenValue, DoesNotSeeLaterChanges) {
  const MutableDictionary inner;
  inner.set("key", 1);
  const MutableDictionary outer;
  outer.set("inner", inner);
  const Value value = frozen(Value::Array{"first", Value(outer)});
  inner.set("key", 2);
  outer.set("more", 3);
  EXPECT_EQ((*value.array())[1], Value(Value::Dictionary{{"inner", Value(Value::Dictionary{{"key", 1}})}}));
  EXPECT_EQ((*value.array())[0], Value("first"));
}

TEST(AFrozenValue, SharesWhatHoldsNoLiveView) {
  const Value plain = Value::Dictionary{{"a", Value::Array{1, 2}}};
  EXPECT_EQ(frozen(plain).dictionary(), plain.dictionary());
  const MutableDictionary live;
  live.set("plain", plain);
  EXPECT_EQ(frozen(live)["plain"].dictionary(), plain.dictionary());
}

TEST(AFrozenValue, EndsWhereALiveViewHoldsItself) {
  const MutableDictionary dictionary;
  dictionary.set("self", dictionary);
  Value value = frozen(dictionary);
  int depth = 0;
  for (; value.contains("self"); value = value["self"]) {
    ASSERT_LE(++depth, limits::propertyListDepth + 1);
  }
  EXPECT_GT(depth, 1);
  dictionary.remove("self");
}

}  // namespace
}  // namespace kelvane
