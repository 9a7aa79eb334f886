// SPDX-License-Identifier: Apache-2.0
// The log handle, the log writer and the two ways to log.
#include "support/KelvaneLog.h"

#include "platform/Limits.h"
#include "platform/Reporting.h"
#include "support/PropertyListFile.h"

namespace kelvane {

namespace {

constexpr char configurationPath[] = "/etc/kelvane/log.plist";

LogHandle processHandle = {errorLevel};
std::atomic<const LogHandle*> currentHandle = &processHandle;

void reportLog(const LogHandle*, std::int32_t level, const char* category, const char* format,
               std::span<const FormatArgument> arguments) {
  const std::string function = arguments.empty() ? std::string() : arguments.front().text();
  reporting::writeLog(level, category, function, formatArguments(format, arguments));
}

}  // namespace

std::atomic<LogWriter> logWriter = reportLog;

const LogHandle* getLogHandle() {
  return currentHandle.load(std::memory_order_acquire);
}

std::string shortened(const Value& value) {
  std::string text = value.description();
  if (text.size() <= limits::shownReplyBytes) {
    return text;
  }
  std::size_t end = limits::shownReplyBytes;
  const auto isInsideACharacter = [&] { return (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U; };
  while (end > 0 && isInsideACharacter()) {
    --end;
  }
  return text.substr(0, end) + "...";
}

void configureLog() {
  processHandle.threshold = errorLevel;
  currentHandle = &processHandle;
  const Value configuration = readConfiguration(configurationPath, "configureLog", "the defaults apply");
  const Value threshold = configuration["Threshold"];
  processHandle.threshold = threshold.isNumber() ? threshold.int32Value() : errorLevel;
  const Value handle = configuration["Handle"];
  currentHandle = handle.isNumber() && !handle.boolValue() ? nullptr : &processHandle;
  reporting::failuresAreLogged = isLoggingErrors();
}

}  // namespace kelvane
