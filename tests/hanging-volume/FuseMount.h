// SPDX-License-Identifier: Apache-2.0
// A mounted file system on a block device, whose requests a process of ours answers.
#pragma once

#include <linux/fuse.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane::test {

/// What the kernel asks. Whoever has one owes it an answer, unless its kind has none.
struct FuseRequest {
  fuse_in_header header;
  /// What follows the header.
  std::vector<std::byte> arguments;

  /// The first of the arguments.
  template <typename Arguments>
  [[nodiscard]] const Arguments& as() const {
    return *reinterpret_cast<const Arguments*>(arguments.data());
  }
};

/// Speaks to the kernel through /dev/fuse itself, so that nothing stands between a request and its answer, or its lack
/// of one. The type of the mount is "fuseblk", on a loop device without contents of its own: to everybody else it is
/// the file system of a disk. Once this process has ended, however it did, every request fails. One thread uses it.
class FuseMount {
 public:
  FuseMount() = default;
  ~FuseMount();
  FuseMount(const FuseMount&) = delete;
  FuseMount& operator=(const FuseMount&) = delete;

  /// Afterwards this process is in a mount namespace of its own, without the mount: if it were the last in a namespace
  /// that has it, its end would wait for an answer of its own. Another process has to unmount it. Returns what went
  /// wrong, if anything did.
  [[nodiscard]] std::string mount(const std::string& directory);

  /// Readable when there is a request.
  [[nodiscard]] int descriptor() const { return device_; }
  /// Nothing once it has been unmounted.
  [[nodiscard]] std::optional<FuseRequest> receive();
  [[nodiscard]] bool isMounted() const { return isMounted_; }

  void answer(const FuseRequest& request, std::span<const std::byte> bytes) const;
  /// An errno, or 0 for a success of which there is nothing to tell.
  void answer(const FuseRequest& request, int error) const;
  template <typename Answer>
  void answerWith(const FuseRequest& request, const Answer& answered) const {
    answer(request, std::as_bytes(std::span(&answered, 1)));
  }

 private:
  void send(const FuseRequest& request, int error, std::span<const std::byte> bytes) const;

  int device_ = -1;
  bool isMounted_ = false;
};

}  // namespace kelvane::test
