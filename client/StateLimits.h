// SPDX-License-Identifier: Apache-2.0
// What clients may leave with the daemon, and how much of it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <variant>

#include "platform/Value.h"
#include "support/KelvaneExportedObject.h"

namespace kelvane {

/// Why a value can be no part of the state: it is too large or too deep to travel on, or holds none somewhere.
std::optional<KelvaneExportedObject::StateError> whyUnstorable(const Value& value);

/// Why a value cannot be stored in the place of the record of recent answers, for which room is kept.
std::optional<KelvaneExportedObject::StateError> whyTooLargeForRecord(const Value& value);

/// The most bytes that the state may take as a binary property list, with the largest record of recent answers in it;
/// or why it is more than the store takes. The record has room of its own.
std::variant<std::size_t, KelvaneExportedObject::StateError> roomFor(const Value::Dictionary& state);

/// Why a service cannot be known by its identifier and its notifications, which are kept for as long as it lives.
std::optional<std::string> whyTooMuchToKeep(const std::string& identifier, const Value& notifications);

}  // namespace kelvane
