// SPDX-License-Identifier: Apache-2.0
// What is in the state store, for people and for programs.
#include "tools/kelvanectl/StateText.h"

#include <gmock/gmock.h>

namespace kelvane::ctl {
namespace {

using testing::HasSubstr;

const Value nested = Value::Dictionary{{"a key", Value::Array{1, "two \"words\"", true}}, {"b", Value::Dictionary{}}};

TEST(AStateText, IsAStringAsItStands) {
  EXPECT_EQ(stateText("two words"), "two words\n");
  EXPECT_EQ(stateText("first\n\tsecond"), "first\n\tsecond\n");
}

TEST(AStateText, PassesNoControlCharactersToTheTerminal) {
  EXPECT_EQ(stateText("evil\x1b[2J\x7f"), "evil\\x1b[2J\\x7f\n");
  EXPECT_EQ(stateText(Value::Array{"evil\u202e\u009b\xff"}), "(\n  \"evil\\u202e\\x9b\\xff\",\n)\n");
  EXPECT_EQ(stateText(Value::Array{"evil\x1b[2J"}), "(\n  \"evil\\x1b[2J\",\n)\n");
  EXPECT_EQ(stateListText({{"k\x1b", "v\x1b\n"}}), "k\\x1b                                \"v\\x1b\\n\"\n");
}

TEST(AStateText, ShowsScalars) {
  EXPECT_EQ(stateText(true), "true\n");
  EXPECT_EQ(stateText(-5), "-5\n");
  EXPECT_EQ(stateText(1.5), "1.5\n");
  EXPECT_EQ(stateText(Date{0}), "1970-01-01 00:00:00 +0000\n");
}

TEST(AStateText, ShowsContainersOverSeveralLines) {
  EXPECT_EQ(stateText(nested),
            "{\n"
            "  \"a key\" = (\n"
            "    1,\n"
            "    \"two \\\"words\\\"\",\n"
            "    true,\n"
            "  );\n"
            "  \"b\" = {\n"
            "  };\n"
            "}\n");
}

TEST(AStateText, ShowsShortDataAndTheSizeOfLonger) {
  EXPECT_EQ(stateText(Data{0x0f, 0xbd}), "<0fbd>\n");
  EXPECT_EQ(stateText(Data(33)), "<33 bytes of data>\n");
}

TEST(AStateList, HasALineForEachKey) {
  EXPECT_EQ(stateListText({{"blob", Data(100)},
                           {"dictionary", nested},
                           {"list", Value::Array{1, 2}},
                           {"long", std::string(100, 'x')},
                           {"number", 5},
                           {"text", "some words"}}),
            "blob                                 <100 bytes of data>\n"
            "dictionary                           a dictionary of 2\n"
            "list                                 an array of 2\n"
            "long                                 a string of 100 bytes\n"
            "number                               5\n"
            "text                                 \"some words\"\n");
  EXPECT_EQ(stateListText({}), "");
}

TEST(AStateInJson, KeepsTheKindsThatJsonHas) {
  EXPECT_EQ(stateJson(nested), R"({"a key":[1,"two \"words\"",true],"b":{}})");
  EXPECT_EQ(stateJson(std::uint64_t{18446744073709551615U}), "18446744073709551615");
  EXPECT_EQ(stateJson(-5), "-5");
  EXPECT_EQ(stateJson(1.5), "1.5");
  EXPECT_EQ(stateJson("line\n"), "\"line\\n\"");
}

TEST(AStateInJson, HasTextForTheOthers) {
  EXPECT_EQ(stateJson(Data{0x0f, 0xbd}), "\"0fbd\"");
  EXPECT_EQ(stateJson(Date{0}), "\"1970-01-01 00:00:00 +0000\"");
  EXPECT_EQ(stateJson(Value()), "null");
  EXPECT_THAT(stateJson("\xff"), HasSubstr("\\ufffd"));
}

}  // namespace
}  // namespace kelvane::ctl
