// SPDX-License-Identifier: Apache-2.0
// Writing XML property lists.
#include <gtest/gtest.h>

#include <string>

#include "tests/common/PropertyListTesting.h"

namespace kelvane {
namespace {

TEST(AWrittenXmlList, IsIndentedForPeople) {
  const Value value = Value::Dictionary{{"list", Value::Array{1, "a & b", Value::Array{}}},
                                        {"nothing", Value::Dictionary{}},
                                        {"on", true},
                                        {"since", Date{1709210096}},
                                        {"some", Data{0x0F, 0xBD, 0x77}},
                                        {"share", 0.25}};
  EXPECT_EQ(testing::writtenXml(value),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<plist version=\"1.0\">\n"
            "<dict>\n"
            "\t<key>list</key>\n"
            "\t<array>\n"
            "\t\t<integer>1</integer>\n"
            "\t\t<string>a &amp; b</string>\n"
            "\t\t<array/>\n"
            "\t</array>\n"
            "\t<key>nothing</key>\n"
            "\t<dict/>\n"
            "\t<key>on</key>\n"
            "\t<true/>\n"
            "\t<key>share</key>\n"
            "\t<real>0.25</real>\n"
            "\t<key>since</key>\n"
            "\t<date>2024-02-29T12:34:56Z</date>\n"
            "\t<key>some</key>\n"
            "\t<data>D713</data>\n"
            "</dict>\n"
            "</plist>\n");
}

TEST(AWrittenXmlList, CannotHoldCharactersThatXmlDoesNotHave) {
  using namespace std::string_literals;
  for (const std::string& string : {"\0"s, "\x01"s, "\x0B"s, "\x1F"s, "\uFFFE"s, "\uFFFF"s}) {
    EXPECT_EQ(testing::xmlRefusal(string), "a string with a character that XML cannot carry");
    EXPECT_EQ(testing::xmlRefusal(Value::Dictionary{{string, 1}}), "a string with a character that XML cannot carry");
  }
}

TEST(AWrittenXmlList, CannotHoldDatesOutsideTheCalendar) {
  for (const double seconds : {253402300800.0, -62135596800.5, 1e300}) {
    EXPECT_EQ(testing::xmlRefusal(Date{seconds}), "a date outside the years 1 to 9999");
  }
}

TEST(AWrittenXmlList, HoldsDatesInWholeSeconds) {
  EXPECT_EQ(testing::parsed(testing::writtenXml(Date{1.75}).value()), Value(Date{1}));
  EXPECT_EQ(testing::parsed(testing::writtenXml(Date{-1.75}).value()), Value(Date{-2}));
}

}  // namespace
}  // namespace kelvane
