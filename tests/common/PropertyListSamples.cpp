// SPDX-License-Identifier: Apache-2.0
// One value of every kind, and files of each format that other programs' writers and people make of it.
#include "tests/common/PropertyListSamples.h"

#include <limits>

namespace kelvane::samples {

using namespace std::string_view_literals;

Value everyKind() {
  return Value::Dictionary{
      {"string", "h\u00E9llo"},
      {"smile", "a\U0001F600b"},
      {"ascii", "plain text longer than fifteen characters"},
      {"int", 5},
      {"big", std::numeric_limits<std::uint64_t>::max()},
      {"max", std::numeric_limits<std::int64_t>::max()},
      {"neg", -1},
      {"min", std::numeric_limits<std::int64_t>::min()},
      {"byte", 200},
      {"short", 40000},
      {"word", 3000000000},
      {"real", 0.5},
      {"yes", true},
      {"no", false},
      {"date", Date{1709210096}},
      {"data", Data{0x0F, 0xBD, 0x77}},
      {"array", Value::Array{1, "x", Value::Array{}}},
      {"dict", Value::Dictionary{{"k", Value::Dictionary{}}}},
  };
}

std::string_view binary() {
  return "\x62\x70\x6c\x69\x73\x74\x30\x30\xdf\x10\x12\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d"
         "\x0e\x0f\x10\x11\x12\x13\x17\x18\x19\x1a\x1b\x1c\x1f\x20\x21\x22\x23\x24\x25\x26\x27\x28\x29\x55"
         "\x61\x72\x72\x61\x79\x55\x61\x73\x63\x69\x69\x53\x62\x69\x67\x54\x62\x79\x74\x65\x54\x64\x61\x74"
         "\x61\x54\x64\x61\x74\x65\x54\x64\x69\x63\x74\x53\x69\x6e\x74\x53\x6d\x61\x78\x53\x6d\x69\x6e\x53"
         "\x6e\x65\x67\x52\x6e\x6f\x54\x72\x65\x61\x6c\x55\x73\x68\x6f\x72\x74\x55\x73\x6d\x69\x6c\x65\x56"
         "\x73\x74\x72\x69\x6e\x67\x54\x77\x6f\x72\x64\x53\x79\x65\x73\xa3\x14\x15\x16\x10\x01\x51\x78\xa0"
         "\x5f\x10\x29\x70\x6c\x61\x69\x6e\x20\x74\x65\x78\x74\x20\x6c\x6f\x6e\x67\x65\x72\x20\x74\x68\x61"
         "\x6e\x20\x66\x69\x66\x74\x65\x65\x6e\x20\x63\x68\x61\x72\x61\x63\x74\x65\x72\x73\x14\x00\x00\x00"
         "\x00\x00\x00\x00\x00\xff\xff\xff\xff\xff\xff\xff\xff\x10\xc8\x43\x0f\xbd\x77\x33\x41\xc5\xc8\x58"
         "\xb8\x00\x00\x00\xd1\x1d\x1e\x51\x6b\xd0\x10\x05\x13\x7f\xff\xff\xff\xff\xff\xff\xff\x13\x80\x00"
         "\x00\x00\x00\x00\x00\x00\x13\xff\xff\xff\xff\xff\xff\xff\xff\x08\x23\x3f\xe0\x00\x00\x00\x00\x00"
         "\x00\x11\x9c\x40\x64\x00\x61\xd8\x3d\xde\x00\x00\x62\x65\x00\x68\x00\xe9\x00\x6c\x00\x6c\x00\x6f"
         "\x12\xb2\xd0\x5e\x00\x09\x00\x08\x00\x2f\x00\x35\x00\x3b\x00\x3f\x00\x44\x00\x49\x00\x4e\x00\x53"
         "\x00\x57\x00\x5b\x00\x5f\x00\x63\x00\x66\x00\x6b\x00\x71\x00\x77\x00\x7e\x00\x83\x00\x87\x00\x8b"
         "\x00\x8d\x00\x8f\x00\x90\x00\xbc\x00\xcd\x00\xcf\x00\xd3\x00\xdc\x00\xdf\x00\xe1\x00\xe2\x00\xe4"
         "\x00\xed\x00\xf6\x00\xff\x01\x00\x01\x09\x01\x0c\x01\x15\x01\x20\x01\x25\x00\x00\x00\x00\x00\x00"
         "\x02\x01\x00\x00\x00\x00\x00\x00\x00\x2a\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
         "\x01\x26"sv;
}

std::string_view xml() {
  return R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Example//DTD Lists 1.0//EN" "http://localhost/never-fetched.dtd">
<!-- Edited by hand. -->
<plist version="1.0">
<dict>
	<key>string</key> <string>h&#233;llo</string>
	<key>smile</key> <string>a&#x1F600;b</string>
	<key>ascii</key> <string>plain text <![CDATA[longer than]]> fifteen<!-- nothing --> characters</string>
	<key>int</key> <integer>5</integer>
	<key>big</key> <integer>18446744073709551615</integer>
	<key>max</key> <integer>0x7FFFFFFFFFFFFFFF</integer>
	<key>neg</key> <integer>-1</integer>
	<key>min</key> <integer>-9223372036854775808</integer>
	<key>byte</key> <integer> +200 </integer>
	<key>short</key> <integer>0x9c40</integer>
	<key>word</key> <integer>3000000000</integer>
	<key>real</key> <real>5e-1</real>
	<key>yes</key> <true/>
	<key>no</key> <false></false>
	<key>date</key> <date>2024-02-29T12:34:56Z</date>
	<key>data</key> <data>
		D7
		13
	</data>
	<key>array</key> <array> <integer>1</integer> <string>x</string> <array/> </array>
	<key>dict</key> <dict> <key>k</key> <dict/> </dict>
</dict>
</plist>
)"sv;
}

std::string_view text() {
  return R"({  // Edited by hand.
  "a key" = "tab\t, line\n, quote\", backslash\\, \101, \U00e9, \Ud83d\Ude00";
  path = /var/cache; /* a comment } */
  list = ( one, (two, "3"), { four = 5; }, ( ), );
  bytes = < 0fbd 77 >;
  empty = "";
})"sv;
}

Value textContents() {
  return Value::Dictionary{
      {"a key", "tab\t, line\n, quote\", backslash\\, A, \u00E9, \U0001F600"},
      {"path", "/var/cache"},
      {"list", Value::Array{"one", Value::Array{"two", "3"}, Value::Dictionary{{"four", "5"}}, Value::Array{}}},
      {"bytes", Data{0x0F, 0xBD, 0x77}},
      {"empty", ""},
  };
}

}  // namespace kelvane::samples
