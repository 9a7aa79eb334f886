// SPDX-License-Identifier: Apache-2.0
// A disk of a test's own.
#include "tests/linux/testing/LoopDisk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/linux/runtime/FileDescriptor.h"

namespace kelvane::test {

namespace {

// As <linux/ext4.h> of newer systems has them.
constexpr unsigned long shutDown = _IOR('X', 125, std::uint32_t);
constexpr std::uint32_t withoutFlushing = 2;

}  // namespace

bool makeDisk(const std::string& image, std::size_t bytes) {
  std::ofstream(image, std::ios::trunc).close();
  std::filesystem::resize_file(image, bytes);
  // Made whole: the kernel would go on making it once it is mounted, and that takes blocks.
  const std::string maker = "mkfs.ext4 -q -F -E lazy_itable_init=0,lazy_journal_init=0 ";
  return std::system((maker + image + " 2>/dev/null").c_str()) == 0;
}

bool mountDisk(const std::string& image, const std::string& directory) {
  const FileDescriptor control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  const FileDescriptor file(open(image.c_str(), O_RDWR | O_CLOEXEC));
  loop_config configuration = {};
  configuration.fd = static_cast<unsigned>(file.get());
  configuration.info.lo_flags = LO_FLAGS_AUTOCLEAR;
  for (int attempt = 0; control && attempt < 20; ++attempt) {  // Another process may take the free device first.
    const std::string path = "/dev/loop" + std::to_string(ioctl(control.get(), LOOP_CTL_GET_FREE));
    // Only for so long: an open device would remember what was never written to the disk.
    const FileDescriptor device(open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (device && ioctl(device.get(), LOOP_CONFIGURE, &configuration) == 0) {
      std::filesystem::create_directories(directory);
      return mount(path.c_str(), directory.c_str(), "ext4", 0, nullptr) == 0;
    }
  }
  return false;
}

void fillDisk(const std::string& directory, const std::string& file) {
  const FileDescriptor filling(open((directory + "/" + file).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  ASSERT_TRUE(filling);
  // What was set aside for the file's own bookkeeping is free again once the file is on disk.
  std::size_t taken = 1;
  while (taken > 0) {
    taken = 0;
    std::string bytes(1 << 20, 'x');
    while (!bytes.empty()) {
      const ssize_t count = write(filling.get(), bytes.data(), bytes.size());
      taken += count > 0 ? static_cast<std::size_t>(count) : 0;
      if (count < static_cast<ssize_t>(bytes.size())) {
        bytes.resize(bytes.size() / 2);
      }
    }
    ASSERT_EQ(errno, ENOSPC);
    static_cast<void>(fsync(filling.get()));
  }
}

bool losePower(const std::string& directory) {
  const FileDescriptor mounted(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  std::uint32_t manner = withoutFlushing;
  return ioctl(mounted.get(), shutDown, &manner) == 0;
}

}  // namespace kelvane::test
