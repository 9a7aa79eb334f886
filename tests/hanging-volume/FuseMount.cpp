// SPDX-License-Identifier: Apache-2.0
// A mounted file system on a block device, whose requests a process of ours answers.
#include "tests/hanging-volume/FuseMount.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace kelvane::test {

namespace {

constexpr std::size_t longestRequest = std::size_t{256} << 10;
constexpr std::size_t deviceBytes = std::size_t{1} << 20;

std::string failure(const char* what) {
  return std::string(what) + ": " + std::strerror(errno);
}

/// A block device that goes when it is closed, the mount's use of it counting too.
class BlockDevice {
 public:
  BlockDevice() {
    const int memory = memfd_create("disk", MFD_CLOEXEC);
    const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    if (memory >= 0 && control >= 0 && ftruncate(memory, deviceBytes) == 0) {
      configure(control, memory);
    }
    const int error = errno;
    close(control);
    close(memory);
    errno = error;
  }
  ~BlockDevice() { close(descriptor_); }
  BlockDevice(const BlockDevice&) = delete;
  BlockDevice& operator=(const BlockDevice&) = delete;

  [[nodiscard]] bool isOpen() const { return descriptor_ >= 0; }
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  void configure(int control, int memory) {
    loop_config configuration = {};
    configuration.fd = static_cast<unsigned>(memory);
    configuration.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    // Another process may take the free device first.
    for (int attempt = 0; attempt < 20 && !isOpen(); ++attempt) {
      const int number = ioctl(control, LOOP_CTL_GET_FREE);
      if (number < 0) {
        return;
      }
      path_ = "/dev/loop" + std::to_string(number);
      descriptor_ = ::open(path_.c_str(), O_RDWR | O_CLOEXEC);
      if (isOpen() && ioctl(descriptor_, LOOP_CONFIGURE, &configuration) != 0) {
        const int error = errno;
        close(descriptor_);
        descriptor_ = -1;
        errno = error;
      }
    }
  }

  std::string path_;
  int descriptor_ = -1;
};

}  // namespace

FuseMount::~FuseMount() {
  close(device_);
}

std::string FuseMount::mount(const std::string& directory) {
  const BlockDevice disk;
  if (!disk.isOpen()) {
    return failure("loop device");
  }
  device_ = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
  if (device_ < 0) {
    return failure("/dev/fuse");
  }
  const std::string options =
      "fd=" + std::to_string(device_) + ",rootmode=40000,user_id=0,group_id=0,allow_other,blksize=4096";
  if (::mount(disk.path().c_str(), directory.c_str(), "fuseblk", 0, options.c_str()) != 0) {
    return failure(directory.c_str());
  }
  if (unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      umount2(directory.c_str(), MNT_DETACH) != 0) {
    return failure("a mount namespace");
  }
  isMounted_ = true;
  return {};
}

std::optional<FuseRequest> FuseMount::receive() {
  static std::array<std::byte, longestRequest> buffer;
  const ssize_t length = read(device_, buffer.data(), buffer.size());
  if (length < 0) {
    isMounted_ = isMounted_ && errno != ENODEV;
    return std::nullopt;
  }
  const std::span<const std::byte> bytes(buffer.data(), static_cast<std::size_t>(length));
  FuseRequest request = {};
  std::memcpy(&request.header, bytes.data(), sizeof request.header);
  const auto arguments = bytes.subspan(sizeof request.header);
  request.arguments.assign(arguments.begin(), arguments.end());
  return request;
}

void FuseMount::answer(const FuseRequest& request, std::span<const std::byte> bytes) const {
  send(request, 0, bytes);
}

void FuseMount::answer(const FuseRequest& request, int error) const {
  send(request, error, {});
}

void FuseMount::send(const FuseRequest& request, int error, std::span<const std::byte> bytes) const {
  fuse_out_header header = {.len = static_cast<std::uint32_t>(sizeof header + bytes.size()),
                            .error = -error,
                            .unique = request.header.unique};
  const std::array<iovec, 2> parts = {iovec{&header, sizeof header},
                                      iovec{const_cast<std::byte*>(bytes.data()), bytes.size()}};
  // Fails only for who is no longer waiting.
  static_cast<void>(writev(device_, parts.data(), parts.size()));
}

}  // namespace kelvane::test
