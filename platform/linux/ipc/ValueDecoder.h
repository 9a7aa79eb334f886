// SPDX-License-Identifier: Apache-2.0
// Reads property-list values out of D-Bus messages.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <optional>
#include <string>

#include "platform/Value.h"

namespace kelvane::ipc {

/// D-Bus's own limit on containers within containers, variants included, over a whole message.
inline constexpr int wireContainerDepth = 64;

/// Decodes values at a message's read position, one after the other. Lives on the event loop's thread for
/// as long as one message is read. After a failure the position is undefined and error() says what is wrong.
///
/// A value is refused when it lies outside the mapping, when it has more than the given number of
/// dictionaries within each other, when it could not be written again within wireContainerDepth, and when
/// all that was decoded takes more memory than the budget.
class ValueDecoder {
 public:
  ValueDecoder(sd_bus_message* message, int maximumDictionaries, std::size_t budget)
      : message_(message), maximumDictionaries_(maximumDictionaries), budget_(budget) {}

  /// The next element, of any type of the mapping: a variant counts as what is in it.
  [[nodiscard]] std::optional<Value> next();

  const std::string& error() const { return error_; }
  bool isOverBudget() const { return cost_ > budget_; }
  /// About how many bytes of memory the decoded values take.
  std::size_t cost() const { return cost_; }
  /// Counts memory that something else in the message takes; false when that is over the budget.
  bool charge(std::size_t bytes);

 private:
  bool read(Value& value);
  bool readBasic(char type, Value& value);
  bool readData(Value& value);
  bool readArray(const std::string& contents, Value& value);
  bool readDictionary(const std::string& contents, Value& value);
  bool readEntries(const std::string& entry, Value::Dictionary& entries);
  bool readVariant(const std::string& contents, Value& value);
  bool readDate(const std::string& contents, Value& value);
  bool enter(char type, const std::string& contents);
  bool leave();
  bool reserveDepth(int containers);
  bool fail(std::string text);
  bool failAsMalformed();
  std::string place() const;

  sd_bus_message* const message_;
  const int maximumDictionaries_;
  const std::size_t budget_;
  std::size_t cost_ = 0;
  int dictionaries_ = 0;
  /// How many containers there would be round the value being read, were it written again.
  int depth_ = 0;
  /// The key of the innermost dictionary entry being read; the message's memory.
  const char* key_ = nullptr;
  std::string error_;
};

}  // namespace kelvane::ipc
