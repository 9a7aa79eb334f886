// SPDX-License-Identifier: Apache-2.0
// The numeric readings of a value.
#include <cmath>
#include <limits>

#include "platform/Value.h"

namespace kelvane {
namespace {

template <typename Integer>
Integer saturated(double number) {
  using Limits = std::numeric_limits<Integer>;
  // One past the largest integer is a power of two, so it is exact as a double; the largest may not be.
  const double pastLargest = std::ldexp(1.0, Limits::digits);
  if (std::isnan(number)) {
    return 0;
  }
  if (number >= pastLargest) {
    return Limits::max();
  }
  if (number <= static_cast<double>(Limits::min())) {
    return Limits::min();
  }
  return static_cast<Integer>(number);
}

}  // namespace

bool Value::boolValue() const {
  if (const auto* number = std::get_if<double>(&storage_)) {
    return !std::isnan(*number) && *number != 0;
  }
  return uint64Value() != 0;
}

std::int32_t Value::int32Value() const {
  if (const auto* number = std::get_if<double>(&storage_)) {
    return saturated<std::int32_t>(*number);
  }
  return static_cast<std::int32_t>(uint64Value());
}

std::int64_t Value::int64Value() const {
  if (const auto* number = std::get_if<double>(&storage_)) {
    return saturated<std::int64_t>(*number);
  }
  return static_cast<std::int64_t>(uint64Value());
}

std::uint64_t Value::uint64Value() const {
  if (const auto* number = std::get_if<bool>(&storage_)) {
    return *number ? 1 : 0;
  }
  if (const auto* number = std::get_if<std::int64_t>(&storage_)) {
    return static_cast<std::uint64_t>(*number);
  }
  if (const auto* number = std::get_if<std::uint64_t>(&storage_)) {
    return *number;
  }
  if (const auto* number = std::get_if<double>(&storage_)) {
    return saturated<std::uint64_t>(*number);
  }
  return 0;
}

double Value::doubleValue() const {
  if (const auto* number = std::get_if<double>(&storage_)) {
    return *number;
  }
  if (isUnsigned()) {
    return static_cast<double>(uint64Value());
  }
  return static_cast<double>(int64Value());
}

}  // namespace kelvane
