// SPDX-License-Identifier: Apache-2.0
// What must hold for every property list that a reader takes.
#pragma once

#include "platform/PropertyList.h"

namespace kelvane::fuzz {

/// Stops the process unless an error has a text, and a value is the same after it was written and read again
/// in each format, as far as the format can carry it.
void checkResult(const propertyList::Result& result);

}  // namespace kelvane::fuzz
