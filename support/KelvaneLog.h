// SPDX-License-Identifier: Apache-2.0
// The log handle, the log writer and the two ways to log.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <span>
#include <string>

#include "support/Format.h"

namespace kelvane {

/// Decides what is logged. Any thread may read it at any time.
struct LogHandle {
  std::atomic<std::int32_t> threshold;
};

inline constexpr std::int32_t traceLevel = 5;
inline constexpr std::int32_t errorLevel = 3;
inline constexpr char logCategory[] = "Kelvane";

/// The process's log handle, or null when there is none. Fetched anew for every message.
const LogHandle* getLogHandle();

/// Sets the handle up from "/etc/kelvane/log.plist": "Threshold" (a number, 3 unless given) and "Handle"
/// (false for none). A file that is there and cannot be read is logged and counts as absent. Called once, before
/// anything else is logged.
void configureLog();

/// Stores one message. The arguments fill the format; the first is the name of the writing method.
using LogWriter = void (*)(const LogHandle* handle, std::int32_t level, const char* category, const char* format,
                           std::span<const FormatArgument> arguments);
extern std::atomic<LogWriter> logWriter;

/// The value as "%@" shows it, but at most limits::shownReplyBytes of it, whole characters, and "..." for the rest: for
/// messages that are always written, about what comes from services.
std::string shortened(const Value& value);

/// Tracing is written when there is no handle at all, so that a process that never got one can be followed.
inline bool isTracing() {
  const LogHandle* handle = getLogHandle();
  return handle == nullptr || handle->threshold >= traceLevel;
}

/// Failures and notable events need a handle.
inline bool isLoggingErrors() {
  const LogHandle* handle = getLogHandle();
  return handle != nullptr && handle->threshold >= errorLevel;
}

template <typename... Arguments>
void writeLog(std::int32_t level, const char* format, const Arguments&... arguments) {
  const std::array<FormatArgument, sizeof...(arguments)> list = {FormatArgument(arguments)...};
  logWriter.load(std::memory_order_relaxed)(getLogHandle(), level, logCategory, format, list);
}

}  // namespace kelvane

/// KELVANE_TRACE(format, name, ...): level 5. KELVANE_ERROR: level 3. Both take the writing method's name
/// first and evaluate no argument when the level is off, hence macros.
#define KELVANE_TRACE(...)                                     \
  do {                                                         \
    if (::kelvane::isTracing()) {                              \
      ::kelvane::writeLog(::kelvane::traceLevel, __VA_ARGS__); \
    }                                                          \
  } while (false)
#define KELVANE_ERROR(...)                                     \
  do {                                                         \
    if (::kelvane::isLoggingErrors()) {                        \
      ::kelvane::writeLog(::kelvane::errorLevel, __VA_ARGS__); \
    }                                                          \
  } while (false)
