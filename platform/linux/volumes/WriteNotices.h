// SPDX-License-Identifier: Apache-2.0
// Notices that somebody writes to a file system.
#pragma once

#include <poll.h>

#include <map>
#include <set>
#include <vector>

#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/volumes/MountTable.h"

namespace kelvane {

/// Has the kernel tell once of the first write to a file system (fanotify). The notice itself is all there is to know,
/// so none is ever read: its queue goes with it, and until it is asked for again writers cost nothing. Where that is
/// forbidden or missing it says so once, and nobody is told.
///
/// A write tells when it has been done, a new file at once; not told of are what goes through mapped memory, what the
/// kernel writes for itself (loop devices), and what goes through an overlay above the file system. A notice keeps no
/// file system busy.
///
/// The volume monitor owns it, and its thread alone uses it.
class WriteNotices {
 public:
  /// A user may have 128 groups, all programs together; root has other programs.
  static constexpr std::size_t mostGroups = 32;

  /// Asks for a notice of writes from now on, unless there is one; false where nobody tells, or there are enough.
  bool ask(const VolumeMount& mount);
  [[nodiscard]] bool areAskedFor(dev_t device) const { return groups_.contains(device); }
  /// File systems that were written to since; none is asked for of these any more.
  [[nodiscard]] std::vector<dev_t> take();
  /// Forgets those of file systems that are mounted no more.
  void keepOnly(const std::vector<VolumeMount>& mounts);
  /// Adds what is readable when there is something to take.
  void addTo(std::vector<pollfd>& events) const;

 private:
  /// A group for each: groups are notified apart, and may be few (fs.fanotify.max_user_groups).
  std::map<dev_t, FileDescriptor> groups_;
  std::set<dev_t> refused_;
  bool isForbidden_ = false;
  bool isRefusalTold_ = false;
};

}  // namespace kelvane
