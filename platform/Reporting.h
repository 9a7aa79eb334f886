// SPDX-License-Identifier: Apache-2.0
// Where log messages and statistics go.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kelvane::reporting {

/// Stores one formatted log message. function is the name of the writing method.
void writeLog(std::int32_t level, std::string_view category, std::string_view function, std::string_view message);

/// Whether the platform's own failures are stored, too. Whoever configures the log decides; any thread may look.
inline std::atomic<bool> failuresAreLogged = true;

/// Stores a failure of the platform at level 3.
inline void reportFailure(std::string_view function, std::string_view message) {
  if (failuresAreLogged) {
    writeLog(3, "Kelvane", function, message);
  }
}

/// Adds to a named counter. An empty name is a counter of its own.
void addToCounter(std::string_view domain, std::string_view name, std::int64_t count);
/// Records one sample of a named distribution.
void addSample(std::string_view domain, std::string_view name, double value);

/// Keeps places for these names in a domain, of counters and of distributions, however many others there are.
void reserveNames(std::string_view domain, std::span<const char* const> names);
/// Says how something is at present: a number that metrics show under this name until it is set again. Both are
/// constants of the program's, and a name always has the same help.
void setGauge(std::string_view name, std::string_view help, std::int64_t value);

}  // namespace kelvane::reporting
