// SPDX-License-Identifier: Apache-2.0
// The log as a test reads it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane::simulated {

struct LogMessage {
  std::int32_t level;
  std::string category;
  std::string function;
  std::string message;
};

/// Every message that was written, in order.
class Log {
 public:
  const std::vector<LogMessage>& messages() const { return messages_; }
  /// The texts, of all levels or of one.
  std::vector<std::string> texts() const;
  std::vector<std::string> texts(std::int32_t level) const;
  /// The texts of one writing method.
  std::vector<std::string> textsOf(std::string_view function) const;

  /// Whether, and how often, a message holds this text.
  bool contains(std::string_view text) const { return count(text) > 0; }
  std::size_t count(std::string_view text) const;
  std::size_t count(std::string_view text, std::int32_t level) const;
  void clear() { messages_.clear(); }

  void add(LogMessage message) { messages_.push_back(std::move(message)); }

 private:
  std::vector<LogMessage> messages_;
};

}  // namespace kelvane::simulated
