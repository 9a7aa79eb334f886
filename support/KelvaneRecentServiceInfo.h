// SPDX-License-Identifier: Apache-2.0
// One service's last answer.
#pragma once

#include <utility>

#include "platform/Value.h"

namespace kelvane {

/// What one service last said it could free on one volume, and when.
class KelvaneRecentServiceInfo {
 public:
  static KelvaneRecentServiceInfo kelvaneRecentServiceInfo(Value amount, Value timestamp) {
    return {std::move(amount), std::move(timestamp)};
  }

  /// As the service reported it, so not always a number.
  const Value& amount() const { return amount_; }
  const Value& timestamp() const { return timestamp_; }

  friend bool operator==(const KelvaneRecentServiceInfo&, const KelvaneRecentServiceInfo&) = default;

 private:
  KelvaneRecentServiceInfo(Value amount, Value timestamp)
      : amount_(std::move(amount)), timestamp_(std::move(timestamp)) {}

  Value amount_;
  Value timestamp_;
};

}  // namespace kelvane
