// SPDX-License-Identifier: Apache-2.0
// Who may change what lies at a place.
#pragma once

#include <optional>
#include <string>

#include "platform/linux/volumes/PathWalk.h"

namespace kelvane {

/// How others than root and this process's user may change a file, link or directory, for people: "belongs to user
/// 1000". None for what they may not. A directory of root's in which names are for their owners alone to remove
/// (sticky) may be written to by all: who may change what is in it, that says itself.
[[nodiscard]] std::optional<std::string> changeByOthers(const FileIdentity& file);

}  // namespace kelvane
