// SPDX-License-Identifier: Apache-2.0
// Where log messages and statistics go.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kelvane::reporting {

/// Stores one formatted log message. function is the name of the writing method.
void writeLog(std::int32_t level, std::string_view category, std::string_view function, std::string_view message);

/// Adds to a named counter. An empty name is a counter of its own.
void addToCounter(std::string_view domain, std::string_view name, std::int64_t count);
/// Records one sample of a named distribution.
void addSample(std::string_view domain, std::string_view name, double value);

}  // namespace kelvane::reporting
