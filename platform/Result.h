// SPDX-License-Identifier: Apache-2.0
// Outcomes of what can fail.
#pragma once

#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <variant>

namespace kelvane {

/// Why something could not be done.
struct Failure {
  /// As errno; 0 when it was not the system that refused.
  int number = 0;
  /// What was tried, and on what.
  std::string tried;

  /// For people: "opening slot-a: Input/output error".
  std::string text() const { return number == 0 ? tried : tried + ": " + std::generic_category().message(number); }
};

/// What the system's last call failed with. To be called before anything that may change errno.
[[nodiscard]] inline Failure systemFailure(std::string_view tried, std::string_view subject = {}) {
  const int number = errno;
  return {.number = number, .tried = std::string(tried).append(subject.empty() ? "" : " ").append(subject)};
}

/// A value, or why there is none. Without a type it only says how something went.
template <typename Type = std::monostate>
class [[nodiscard]] Result {
 public:
  Result() requires std::is_default_constructible_v<Type>
  = default;
  // Implicit, so that functions return the one or the other.
  Result(Type value) : outcome_(std::in_place_index<0>, std::move(value)) {}
  Result(Failure failure) : outcome_(std::in_place_index<1>, std::move(failure)) {}

  explicit operator bool() const { return outcome_.index() == 0; }
  /// Only when there is one.
  Type& operator*() & { return *std::get_if<0>(&outcome_); }
  const Type& operator*() const& { return *std::get_if<0>(&outcome_); }
  Type&& operator*() && { return std::move(*std::get_if<0>(&outcome_)); }
  Type* operator->() { return std::get_if<0>(&outcome_); }
  const Type* operator->() const { return std::get_if<0>(&outcome_); }
  /// Only when there is no value.
  const Failure& failure() const { return *std::get_if<1>(&outcome_); }

 private:
  std::variant<Type, Failure> outcome_;
};

}  // namespace kelvane
