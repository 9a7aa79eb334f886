// SPDX-License-Identifier: Apache-2.0
// What the daemon asks about volumes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Value.h"
#include "platform/Volumes.h"

namespace kelvane {

/// Whether the info's "KELVANE_VOLUME" names the mount point of a writable, local file system.
bool validateVolume(const Value& info);

/// The local volumes, by mount point.
std::vector<std::string> getLocalVolumes();

/// Those that are low on space now and to be relieved, the emptiest first. It only tells.
std::vector<std::string> lowSpaceVolumes();

/// The handler of a low-disk event is about to purge one of these; how it is to go about it.
volumes::Relief beginRelief(const std::string& volume);

/// Bytes of the volume that are available to unprivileged users; none for what is no volume or cannot be asked.
std::optional<std::uint64_t> volumeFreespace(const Value& volume);

/// All that is known of its space at once.
std::optional<volumes::Space> volumeSpace(const Value& volume);

/// As volumeFreespace() of each, but all asked at the same time, and perhaps as it was when it was asked last: for what
/// is judged many times in a row.
std::vector<std::optional<std::uint64_t>> recentVolumeFreespaces(const std::vector<std::string>& volumes);

/// Bytes of the volume that are free at all, those kept for the superuser among them; none likewise.
std::optional<std::uint64_t> volumeFreeBytes(const Value& volume);

/// Bytes gained so far by the purge that the info describes, with this much free space now: that less
/// "KELVANE_FREESPACE_BEGIN", never below 0, and 0 while that is not known. No service's word is taken for it.
std::uint64_t amountPurged(const Value& info, std::uint64_t freespace);

}  // namespace kelvane
