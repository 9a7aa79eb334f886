// SPDX-License-Identifier: Apache-2.0
// What a configuration comes to on this machine.
#pragma once

#include <cstdint>
#include <ostream>

#include "services/directory-cache/Configuration.h"

namespace kelvane::directoryCache {

/// Looks at the directories as this process's user and writes what each is, what its patterns match, and how much each
/// urgency could free now (seconds since 1970). False when one of them would be left as it is configured.
[[nodiscard]] bool checkDirectories(const Configuration& configuration, std::int64_t now, std::ostream& output);

}  // namespace kelvane::directoryCache
