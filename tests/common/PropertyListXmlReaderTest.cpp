// SPDX-License-Identifier: Apache-2.0
// Reading XML property lists.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

#include "tests/common/PropertyListTesting.h"

namespace kelvane {
namespace {

using namespace std::string_literals;
using testing::parsed;
using testing::refusal;

std::optional<Value> parsedElement(const std::string& element) {
  return parsed("<plist>" + element + "</plist>");
}
std::string elementRefusal(const std::string& element) {
  return refusal("<plist>" + element + "</plist>");
}

std::string toUtf16(const std::string& ascii, bool bigEndian) {
  std::string units;
  for (const char c : ascii) {
    units += bigEndian ? "\0"s + c : c + "\0"s;
  }
  return units;
}

TEST(AnXmlInteger, SpansBothSignednesses) {
  EXPECT_EQ(parsedElement("<integer>-9223372036854775808</integer>"), Value(std::numeric_limits<std::int64_t>::min()));
  EXPECT_EQ(parsedElement("<integer>9223372036854775807</integer>"), Value(std::numeric_limits<std::int64_t>::max()));
  EXPECT_EQ(parsedElement("<integer>9223372036854775808</integer>"), Value(std::uint64_t{1} << 63));
  EXPECT_EQ(parsedElement("<integer>18446744073709551615</integer>"), Value(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_EQ(parsedElement("<integer>0xffffffffffffffff</integer>"), Value(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_EQ(parsedElement("<integer>-0X10</integer>"), Value(-16));
  EXPECT_EQ(parsedElement("<integer>\n +7\t</integer>"), Value(7));
}

TEST(AnXmlInteger, IsSignedUnlessItIsTooLarge) {
  EXPECT_TRUE(parsedElement("<integer>9223372036854775807</integer>")->isSigned());
  EXPECT_TRUE(parsedElement("<integer>9223372036854775808</integer>")->isUnsigned());
}

TEST(AnXmlInteger, IsRefusedWhenItIsNone) {
  for (const char* text : {"", " ", "x", "1x", "1.5", "1 2", "--1", "+-1", "0x", "0xg", "-", "18446744073709551616",
                           "-9223372036854775809", "0x10000000000000000", "99999999999999999999999999"}) {
    EXPECT_EQ(elementRefusal("<integer>"s + text + "</integer>"), "line 1: no integer, or one out of range") << text;
  }
}

TEST(AnXmlReal, IsADecimalFractionOrItsLimit) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(parsedElement("<real>1</real>"), Value(1.0));
  EXPECT_EQ(parsedElement("<real> -1.25e-3 </real>"), Value(-1.25e-3));
  EXPECT_EQ(parsedElement("<real>+.5</real>"), Value(0.5));
  EXPECT_EQ(parsedElement("<real>+infinity</real>"), Value(infinity));
  EXPECT_EQ(parsedElement("<real>-inf</real>"), Value(-infinity));
  EXPECT_EQ(parsedElement("<real>nan</real>"), Value(std::nan("")));
}

TEST(AnXmlReal, IsRefusedWhenItIsNone) {
  for (const char* text : {"", "x", "1,5", "1.5.", "--1", "+-1", "1e", "1e999", "0x1p3"}) {
    EXPECT_EQ(elementRefusal("<real>"s + text + "</real>"), "line 1: no real, or one out of range") << text;
  }
}

TEST(AnXmlDate, IsIso8601InUtc) {
  EXPECT_EQ(parsedElement("<date>1970-01-01T00:00:00Z</date>"), Value(Date{0}));
  EXPECT_EQ(parsedElement("<date>2001-01-01T00:00:00Z</date>"), Value(Date{978307200}));
  EXPECT_EQ(parsedElement("<date>0001-01-01T00:00:00Z</date>"), Value(Date{-62135596800}));
  EXPECT_EQ(parsedElement("<date>9999-12-31T23:59:59Z</date>"), Value(Date{253402300799}));
}

TEST(AnXmlDate, IsRefusedWhenItIsNone) {
  for (const char* text :
       {"", "2001-01-01", "2001-01-01T00:00:00", "2001-01-01T00:00:00+01:00", "2001-01-01 00:00:00Z",
        "2001-13-01T00:00:00Z", "2001-02-29T00:00:00Z", "2001-00-01T00:00:00Z", "2001-01-01T24:00:00Z",
        "2001-01-01T00:60:00Z", "2001-01-01T00:00:60Z", "0000-01-01T00:00:00Z", "01-01-01T00:00:00Z",
        "2001-01-01T00:00:00Zx", " 2001-01-01T00:00:00Z", "2001-1-01T00:00:00Z"}) {
    EXPECT_EQ(elementRefusal("<date>"s + text + "</date>"), "line 1: no date of the form 2001-02-03T04:05:06Z") << text;
  }
}

TEST(XmlData, IsPaddedBase64WithWhiteSpaceAnywhere) {
  EXPECT_EQ(parsedElement("<data></data>"), Value(Data{}));
  EXPECT_EQ(parsedElement("<data>AA==</data>"), Value(Data{0}));
  EXPECT_EQ(parsedElement("<data>\n\tA A\r\n= =\n</data>"), Value(Data{0}));
  EXPECT_EQ(parsedElement("<data>+/8=</data>"), Value(Data{0xFB, 0xFF}));
  EXPECT_EQ(parsedElement("<data>AAECAwQF</data>"), Value(Data{0, 1, 2, 3, 4, 5}));
}

TEST(XmlData, IsRefusedWhenItIsNoBase64) {
  for (const char* text : {"A", "AA", "AAA", "AA=", "AA=A", "A===", "====", "AAA=AAAA",
                           "AA==AA==", "AB==", "AAB=", "AAAA=", "AAAA====", "A*==", "AA-_", "AAAAA"}) {
    EXPECT_EQ(elementRefusal("<data>"s + text + "</data>"), "line 1: no base64 data") << text;
  }
}

TEST(AnXmlString, KeepsItsWhiteSpace) {
  EXPECT_EQ(parsedElement("<string> a\n\tb </string>"), Value(" a\n\tb "));
  EXPECT_EQ(parsedElement("<string/>"), Value(""));
}

TEST(AnXmlString, MayHavePredefinedEntitiesAndCharacterReferences) {
  EXPECT_EQ(parsedElement("<string>&lt;&amp;&gt;&quot;&apos;&#65;&#x1F600;</string>"), Value("<&>\"'A\U0001F600"));
}

TEST(AnXmlString, IsRefusedForCharactersThatXmlDoesNotHave) {
  for (const char* text : {"&#0;", "&#1;", "&#xD800;", "&#xFFFE;", "&#x110000;", "\x01"}) {
    EXPECT_NE(elementRefusal("<string>"s + text + "</string>"), "") << text;
  }
}

TEST(AnXmlDocument, MayBeInAnyOfTheParsersEncodings) {
  const std::string document = "<plist><string>x&#xE9;</string></plist>";
  const Value expected = "x\u00E9";
  EXPECT_EQ(parsed("\xFE\xFF" + toUtf16(document, true)), expected);
  EXPECT_EQ(parsed("\xFF\xFE" + toUtf16(document, false)), expected);
  const std::string declared = "<?xml version='1.0' encoding='UTF-16'?>" + document;
  EXPECT_EQ(parsed(toUtf16(declared, true)), expected);
  EXPECT_EQ(parsed(toUtf16(declared, false)), expected);
  EXPECT_EQ(parsed("<?xml version='1.0' encoding='ISO-8859-1'?><plist><string>x\xE9</string></plist>"), expected);
  EXPECT_EQ(parsed("<?xml version='1.0' encoding='US-ASCII'?>" + document), expected);
  EXPECT_EQ(refusal("<?xml version='1.0' encoding='EBCDIC-CP-US'?>" + document), "line 1: unknown encoding");
}

TEST(AnXmlDocument, IsRefusedForHalfASurrogatePairInUtf16) {
  for (const char* unit : {"\xD8\x00", "\xDC\x00"}) {
    const std::string start = "\xFE\xFF" + toUtf16("<plist><string>", true);
    const std::string end = toUtf16("</string></plist>", true);
    EXPECT_NE(refusal(start + std::string(unit, 2) + end), "");
  }
}

TEST(AnXmlDoctype, IsIgnoredWhateverItSays) {
  const std::string list = "<plist version='1.0'><string>x</string></plist>";
  for (const char* doctype :
       {"<!DOCTYPE plist>", "<!DOCTYPE other>", "<!DOCTYPE plist SYSTEM 'file:///etc/passwd'>",
        "<!DOCTYPE plist PUBLIC '-//Example//DTD Lists 1.0//EN' 'http://localhost/lists.dtd'>",
        "<!DOCTYPE plist [<!ELEMENT plist EMPTY><!ENTITY e 'text'><!ENTITY f SYSTEM 'file:///etc/passwd'>]>",
        "<!DOCTYPE plist [<!ENTITY % p SYSTEM 'file:///etc/passwd'> %p; <!ENTITY e 'text'>]>",
        "<!DOCTYPE plist [<!ATTLIST string kind CDATA 'default'>]>"}) {
    EXPECT_EQ(parsed(doctype + list), Value("x")) << doctype;
  }
}

TEST(AnXmlEntity, IsUndefinedUnlessItIsPredefined) {
  const std::string declarations =
      "<!DOCTYPE plist [<!ENTITY e 'text'>\n<!ENTITY f SYSTEM 'file:///etc/hostname'>\n<!ENTITY n '<true/>'>]>";
  for (const char* doctype : {"\n\n", "<!DOCTYPE plist SYSTEM 'lists.dtd'>\n\n", declarations.c_str()}) {
    for (const char* entity : {"&e;", "&f;", "&n;", "&g;", "&nbsp;"}) {
      EXPECT_EQ(refusal(doctype + "<plist><string>"s + entity + "</string></plist>"), "line 3: undefined entity")
          << doctype << entity;
      EXPECT_EQ(refusal(doctype + "<plist>"s + entity + "</plist>"), "line 3: undefined entity") << doctype << entity;
      EXPECT_NE(refusal(doctype + "<plist version='"s + entity + "'><true/></plist>"), "") << doctype << entity;
    }
  }
}

TEST(AnXmlEntity, ThatLaughsABillionTimesIsRefusedAtOnce) {
  std::string declarations = "<!ENTITY l0 'ha'>";
  for (int i = 1; i <= 30; ++i) {
    const std::string inner = "&l" + std::to_string(i - 1) + ";";
    declarations += "<!ENTITY l" + std::to_string(i) + " '" + testing::repeated(inner, 10) + "'>";
  }
  const std::string doctype = "<!DOCTYPE plist [" + declarations + "]>";
  EXPECT_EQ(refusal(doctype + "<plist><string>&l30;</string></plist>"), "line 1: undefined entity");
  EXPECT_NE(refusal(doctype + "<plist version='&l30;'><true/></plist>"), "");
  const std::string defaulted =
      "<!DOCTYPE plist [" + declarations + "<!ATTLIST plist version CDATA '&l30;'>]><plist><true/></plist>";
  EXPECT_NE(refusal(defaulted), "");
}

TEST(AnXmlList, HoldsOneValue) {
  EXPECT_EQ(refusal("<plist/>"), "line 1: no value");
  EXPECT_EQ(elementRefusal("<true/>\n<false/>"), "line 2: more than one value");
  EXPECT_EQ(elementRefusal("<dict/><string>x</string>"), "line 1: more than one value");
  EXPECT_EQ(refusal("<?xml version='1.0'?><dict/>"), "line 1: the outermost element is not <plist>");
  EXPECT_EQ(elementRefusal("<plist><true/></plist>"), "line 1: <plist> within <plist>");
  EXPECT_NE(refusal("<plist><true/></plist><plist><true/></plist>"), "");
}

TEST(AnXmlList, HasTextInItsTextElementsOnly) {
  EXPECT_EQ(elementRefusal("x<true/>"), "line 1: text where none may be");
  EXPECT_EQ(elementRefusal("<true/>x"), "line 1: text where none may be");
  EXPECT_EQ(elementRefusal("<true>x</true>"), "line 1: text where none may be");
  EXPECT_EQ(elementRefusal("<array>x</array>"), "line 1: text where none may be");
  EXPECT_EQ(elementRefusal("<dict>\n\n<key>k</key>=<true/></dict>"), "line 3: text where none may be");
  EXPECT_EQ(elementRefusal("<string><b>x</b></string>"), "line 1: an element of an unknown name");
  EXPECT_EQ(elementRefusal("<string><string>x</string></string>"), "line 1: an element where only text may be");
  EXPECT_EQ(elementRefusal("<true><true/></true>"), "line 1: an element where only text may be");
}

TEST(AnXmlDictionary, HasAKeyForEveryValue) {
  EXPECT_EQ(elementRefusal("<dict><true/></dict>"), "line 1: a value without a <key>");
  EXPECT_EQ(elementRefusal("<dict><key>k</key></dict>"), "line 1: a <key> without a value");
  EXPECT_EQ(elementRefusal("<dict><key>k</key><key>l</key><true/></dict>"), "line 1: a <key> without a value");
  EXPECT_EQ(elementRefusal("<dict><key>k</key><true/><true/></dict>"), "line 1: a value without a <key>");
  EXPECT_EQ(elementRefusal("<array><key>k</key></array>"), "line 1: <key> outside a <dict>");
  EXPECT_EQ(elementRefusal("<key>k</key>"), "line 1: <key> outside a <dict>");
}

TEST(AnXmlDictionary, IsRefusedWhenAKeyComesTwice) {
  EXPECT_EQ(elementRefusal("<dict><key>k</key><true/>\n<key>k</key><false/></dict>"), "line 2: a key comes twice");
  EXPECT_NE(parsedElement("<dict><key>k</key><true/><key>K</key><false/></dict>"), std::nullopt);
}

TEST(AnXmlDictionary, MayHaveAnEmptyKey) {
  EXPECT_EQ(parsedElement("<dict><key/><true/></dict>"), Value(Value::Dictionary{{"", true}}));
}

TEST(AnXmlElement, OfAnotherNameIsRefused) {
  EXPECT_EQ(elementRefusal("<set/>"), "line 1: an element of an unknown name");
  EXPECT_EQ(elementRefusal("<array><String>x</String></array>"), "line 1: an element of an unknown name");
  EXPECT_EQ(elementRefusal("<integers>1</integers>"), "line 1: an element of an unknown name");
}

TEST(AnXmlError, SaysTheLineOfTheWholeFile) {
  EXPECT_EQ(refusal("\n\n<?xml version='1.0'?>\n<plist>\n<dict>\n</plist>"), "line 6: mismatched tag");
  EXPECT_EQ(refusal("<plist>\n<true>"), "line 2: no element found");
  EXPECT_EQ(refusal("<plist><true/></plist>\ntrailing"), "line 2: junk after document element");
}

}  // namespace
}  // namespace kelvane
