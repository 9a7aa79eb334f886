// SPDX-License-Identifier: Apache-2.0
// Dates as calendar text, in UTC.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Value.h"

namespace kelvane {

/// "YYYY-MM-DD", the separator, "HH:MM:SS", the zone; fractions of a second are dropped (downwards). None
/// for a date outside the years 1 to 9999 or one that is not finite.
[[nodiscard]] std::optional<std::string> calendarText(Date date, std::string_view separator, std::string_view zone);

/// The date that exactly "YYYY-MM-DDTHH:MM:SSZ" stands for, with the years 1 to 9999; none for other text.
[[nodiscard]] std::optional<Date> dateFromIsoText(std::string_view text);

}  // namespace kelvane
