// SPDX-License-Identifier: Apache-2.0
// Dates as calendar text, in UTC.
#include "platform/common/CalendarDate.h"

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>

namespace kelvane {
namespace {

constexpr std::int64_t earliest =
    std::chrono::sys_seconds(std::chrono::sys_days(std::chrono::year(1) / 1 / 1)).time_since_epoch().count();
constexpr std::int64_t pastLatest =
    std::chrono::sys_seconds(std::chrono::sys_days(std::chrono::year(10000) / 1 / 1)).time_since_epoch().count();

/// Removes count decimal digits from the start of text; none when they are not all digits.
std::optional<unsigned> takeDigits(std::string_view& text, std::size_t count) {
  if (text.size() < count) {
    return std::nullopt;
  }
  unsigned number = 0;
  for (const char c : text.substr(0, count)) {
    if (c < '0' || c > '9') {
      return std::nullopt;
    }
    number = number * 10 + static_cast<unsigned>(c - '0');
  }
  text.remove_prefix(count);
  return number;
}

}  // namespace

std::optional<std::string> calendarText(Date date, std::string_view separator, std::string_view zone) {
  const double whole = std::floor(date.secondsSince1970);
  if (!(whole >= static_cast<double>(earliest) && whole < static_cast<double>(pastLatest))) {
    return std::nullopt;
  }
  const std::chrono::sys_seconds seconds{std::chrono::seconds(static_cast<std::int64_t>(whole))};
  const auto days = std::chrono::floor<std::chrono::days>(seconds);
  const std::chrono::year_month_day day(days);
  const auto time = (seconds - days).count();
  std::array<char, 16> dayText{};
  std::array<char, 16> timeText{};
  std::snprintf(dayText.data(), dayText.size(), "%04d-%02u-%02u", static_cast<int>(day.year()),
                static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()));
  std::snprintf(timeText.data(), timeText.size(), "%02d:%02d:%02d", static_cast<int>(time / 3600),
                static_cast<int>(time / 60 % 60), static_cast<int>(time % 60));
  return std::string(dayText.data()).append(separator).append(timeText.data()).append(zone);
}

std::optional<Date> dateFromIsoText(std::string_view text) {
  std::array<unsigned, 6> fields{};
  for (std::size_t i = 0; i < fields.size(); ++i) {
    const auto field = takeDigits(text, i == 0 ? 4 : 2);
    if (!field || text.empty() || text.front() != "--T::Z"[i]) {
      return std::nullopt;
    }
    text.remove_prefix(1);
    fields[i] = *field;
  }
  const auto [year, month, day, hour, minute, second] = fields;
  const std::chrono::year_month_day calendarDay(std::chrono::year(static_cast<int>(year)), std::chrono::month(month),
                                                std::chrono::day(day));
  if (!text.empty() || year == 0 || !calendarDay.ok() || hour > 23 || minute > 59 || second > 59) {
    return std::nullopt;
  }
  const std::chrono::sys_seconds time = std::chrono::sys_days(calendarDay) + std::chrono::hours(hour) +
                                        std::chrono::minutes(minute) + std::chrono::seconds(second);
  return Date{static_cast<double>(time.time_since_epoch().count())};
}

}  // namespace kelvane
