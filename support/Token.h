// SPDX-License-Identifier: Apache-2.0
// What names one purge.
#pragma once

#include "platform/Process.h"
#include "platform/Value.h"

namespace kelvane {

/// A new token: a random UUID as a string, so that it can be a key and travel in an info dictionary.
inline Value createKelvaneToken() {
  return Value(randomUuid());
}

}  // namespace kelvane
