// SPDX-License-Identifier: Apache-2.0
// Values as they look at one moment.
#pragma once

#include "platform/Value.h"

namespace kelvane::simulated {

/// A copy of which no part is a live view any more: what sending or storing a value makes of it.
Value frozen(const Value& value);

}  // namespace kelvane::simulated
