// SPDX-License-Identifier: Apache-2.0
// Tells the formats of property lists apart.
#include "platform/PropertyList.h"

#include "platform/common/PropertyListReaders.h"

namespace kelvane::propertyList {
namespace {

using namespace std::string_view_literals;

constexpr std::string_view utf8Mark = "\xEF\xBB\xBF"sv;

bool looksLikeUtf16(std::string_view bytes) {
  return bytes.starts_with("\xFE\xFF"sv) || bytes.starts_with("\xFF\xFE"sv) || bytes.starts_with("<\0"sv) ||
         bytes.starts_with("\0<"sv);
}

// A text list may begin with '<' too, but then a hexadecimal digit, a space or '>' follows.
bool looksLikeXml(std::string_view text) {
  while (!text.empty() && isSpace(text.front())) {
    text.remove_prefix(1);
  }
  return text.starts_with("<?") || text.starts_with("<!") || text.starts_with("<p");
}

}  // namespace

Result parse(std::span<const std::uint8_t> bytes) {
  if (bytes.size() > limits::propertyListBytes) {
    return Error{"larger than " + std::to_string(limits::propertyListBytes) + " bytes"};
  }
  std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (text.starts_with("bplist")) {
    return readBinary(bytes);
  }
  if (looksLikeUtf16(text)) {
    return readXml(text);
  }
  if (text.starts_with(utf8Mark)) {
    text.remove_prefix(utf8Mark.size());
  }
  return looksLikeXml(text) ? readXml(text) : readText(text);
}

}  // namespace kelvane::propertyList
