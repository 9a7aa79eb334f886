// SPDX-License-Identifier: Apache-2.0
// Reads XML property lists: what expat reports goes to the builder, and nothing but the text itself is read.

// expat.h declares the bounds on expansion only so, though every usual build of the library has them.
#define XML_DTD
#include <expat.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "platform/common/PropertyListReaders.h"
#include "platform/common/PropertyListXmlBuilder.h"

namespace kelvane::propertyList {
namespace {

struct ParserDeleter {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};
using Parser = std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserDeleter>;

/// Reads one list; expat's handlers are its functions.
class XmlReader {
 public:
  XmlReader(std::string_view text, std::size_t firstLine)
      : text_(text), firstLine_(firstLine), parser_(XML_ParserCreate(nullptr)) {}

  Result read() {
    if (!parser_) {
      return Error{"out of memory"};
    }
    XML_SetUserData(parser_.get(), this);
    XML_SetElementHandler(parser_.get(), startElement, endElement);
    XML_SetCharacterDataHandler(parser_.get(), characters);
    // A declared entity is left unexpanded, and reported as skipped, only when there is a default handler.
    XML_SetDefaultHandler(parser_.get(), [](void*, const XML_Char*, int) {});
    XML_SetSkippedEntityHandler(parser_.get(), skippedEntity);
    XML_SetExternalEntityRefHandler(parser_.get(), externalEntity);
    // Attributes' values are expanded all the same, and then refused: this bounds the work until then.
    XML_SetBillionLaughsAttackProtectionActivationThreshold(parser_.get(), limits::propertyListBytes);
    XML_SetBillionLaughsAttackProtectionMaximumAmplification(parser_.get(), 2);
    if (XML_Parse(parser_.get(), text_.data(), static_cast<int>(text_.size()), XML_TRUE) != XML_STATUS_OK) {
      if (error_.text.empty()) {
        note(XML_ErrorString(XML_GetErrorCode(parser_.get())));
      }
      return error_;
    }
    return builder_.takeValue();
  }

 private:
  static XmlReader& self(void* userData) { return *static_cast<XmlReader*>(userData); }

  static void startElement(void* userData, const XML_Char* name, const XML_Char**) {
    XmlReader& reader = self(userData);
    if (reader.tag().find('&') != std::string_view::npos) {
      reader.stop("an entity in a tag");
    }
    reader.build([name](XmlBuilder& builder) { return builder.startElement(name); });
  }

  static void endElement(void* userData, const XML_Char*) {
    self(userData).build([](XmlBuilder& builder) { return builder.endElement(); });
  }

  static void characters(void* userData, const XML_Char* text, int size) {
    const std::string_view part(text, static_cast<std::size_t>(size));
    self(userData).build([part](XmlBuilder& builder) { return builder.characters(part); });
  }

  static void skippedEntity(void* userData, const XML_Char*, int isParameterEntity) {
    // Parameter entities occur in the DOCTYPE only, which does not matter.
    if (!isParameterEntity) {
      self(userData).stop("undefined entity");
    }
  }

  static int externalEntity(XML_Parser parser, const XML_Char*, const XML_Char*, const XML_Char*, const XML_Char*) {
    self(XML_GetUserData(parser)).stop("undefined entity");
    return XML_STATUS_ERROR;
  }

  /// The bytes of the tag being reported. The text is given to expat in one piece, so its indexes hold.
  std::string_view tag() const {
    const auto start = static_cast<std::size_t>(XML_GetCurrentByteIndex(parser_.get()));
    return text_.substr(start, static_cast<std::size_t>(XML_GetCurrentByteCount(parser_.get())));
  }

  /// Lets the builder take one step, unless something has failed: expat, once stopped, may report a little
  /// more all the same.
  template <typename Step>
  void build(Step step) {
    if (!error_.text.empty()) {
      return;
    }
    if (const char* failure = step(builder_)) {
      stop(failure);
    }
  }

  void stop(const char* why) {
    if (error_.text.empty()) {
      note(why);
      XML_StopParser(parser_.get(), XML_FALSE);
    }
  }

  void note(const char* why) {
    error_.text = "line " + std::to_string(firstLine_ + XML_GetCurrentLineNumber(parser_.get()) - 1) + ": " + why;
  }

  std::string_view text_;
  std::size_t firstLine_;
  Parser parser_;
  XmlBuilder builder_;
  Error error_;
};

}  // namespace

Result readXml(std::string_view bytes) {
  // Before an XML declaration expat takes no space, which people leave there all the same.
  std::string_view text = bytes;
  while (!text.empty() && isSpace(text.front())) {
    text.remove_prefix(1);
  }
  const auto skippedLines = std::ranges::count(bytes.substr(0, bytes.size() - text.size()), '\n');
  return XmlReader(text, 1 + static_cast<std::size_t>(skippedLines)).read();
}

}  // namespace kelvane::propertyList
