// SPDX-License-Identifier: Apache-2.0
// Values as they look at one moment.
#pragma once

#include "platform/Value.h"

namespace kelvane {

/// The value with every live view in it, down to limits::propertyListDepth, replaced by what it shows at this
/// moment; what lies deeper is left out. To be called where a value is handed over to be written later. What
/// holds no live view is shared, not copied. Any thread.
Value frozen(const Value& value);

}  // namespace kelvane
