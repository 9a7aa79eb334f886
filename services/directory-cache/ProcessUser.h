// SPDX-License-Identifier: Apache-2.0
// Running as the owner of the data.
#pragma once

#include <optional>
#include <string>

namespace kelvane::directoryCache {

/// Makes the process run as the user, by name or decimal number, for good: from root it changes over, with the user's
/// groups; as anybody else it must be that user already. Without a user it may be anybody but root, who can delete what
/// is not the cache's. Returns what is wrong.
[[nodiscard]] std::optional<std::string> runAsUser(const std::string& user);

}  // namespace kelvane::directoryCache
