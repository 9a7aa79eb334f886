// SPDX-License-Identifier: Apache-2.0
// Base64, as XML property lists carry data.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Value.h"

namespace kelvane {

/// On one line, padded.
[[nodiscard]] std::string base64Text(const Data& data);

/// None unless text is padded base64 with nothing but white space in between and no bits set that stand
/// for no byte.
[[nodiscard]] std::optional<Data> dataFromBase64(std::string_view text);

}  // namespace kelvane
