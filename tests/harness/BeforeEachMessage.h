// SPDX-License-Identifier: Apache-2.0
// A look at the world at the moment when a log message is written.
#pragma once

#include <functional>
#include <span>
#include <string_view>
#include <utility>

#include "support/KelvaneLog.h"

namespace kelvane::test {

/// While it lives, calls a function with the format of each message before that is written, on the writer's
/// thread. One at a time. Messages that the function itself leads to are passed to it, too.
class BeforeEachMessage {
 public:
  explicit BeforeEachMessage(std::function<void(std::string_view format)> function) {
    function_ = std::move(function);
    writer_ = logWriter.exchange([](const LogHandle* handle, std::int32_t level, const char* category,
                                    const char* format, std::span<const FormatArgument> arguments) {
      function_(format);
      writer_(handle, level, category, format, arguments);
    });
  }
  ~BeforeEachMessage() { logWriter = writer_; }
  BeforeEachMessage(const BeforeEachMessage&) = delete;
  BeforeEachMessage& operator=(const BeforeEachMessage&) = delete;

 private:
  static inline std::function<void(std::string_view format)> function_;
  static inline LogWriter writer_ = nullptr;
};

}  // namespace kelvane::test
