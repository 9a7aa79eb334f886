// SPDX-License-Identifier: Apache-2.0
// How GoogleTest shows a value when an expectation fails.
#pragma once

#include <ostream>

#include "platform/Value.h"

namespace kelvane {

inline void PrintTo(const Value& value, std::ostream* stream) {
  *stream << value.description();
}

}  // namespace kelvane
