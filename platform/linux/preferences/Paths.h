// SPDX-License-Identifier: Apache-2.0
// Where on a Linux system the preferences are.
#pragma once

namespace kelvane::paths {

inline constexpr char preferencesDirectory[] = "/var/lib/kelvane/preferences";

}  // namespace kelvane::paths
