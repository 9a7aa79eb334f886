// SPDX-License-Identifier: Apache-2.0
// Where the daemon finds things.
#pragma once

namespace kelvane::test {

inline constexpr char daemonSocket[] = "/run/kelvane/ipc/com.tessaly.kelvane";
inline constexpr char controlSocket[] = "/run/kelvane/control";
inline constexpr char serviceSockets[] = "/run/kelvane/ipc/";
inline constexpr char descriptions[] = "/System/Library/Kelvane/";
inline constexpr char configuration[] = "/etc/kelvane/kelvaned.plist";
inline constexpr char entitlementRules[] = "/etc/kelvane/entitlements.d/";
/// A volume that the test has to itself.
inline constexpr char volume[] = "/volumes/data";

}  // namespace kelvane::test
