// SPDX-License-Identifier: Apache-2.0
// A volume that hangs when a test wants it to.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace kelvane::test {

/// The program hanging_volume, whose help tells of operations; what it can't do fails the test. While a volume hangs,
/// no thread of the test itself should ask it anything. It needs root's mount namespace, /dev/fuse and loop devices.
class HangingVolume {
 public:
  /// Mounts it on this directory, which it makes.
  explicit HangingVolume(const std::string& directory);
  /// Whoever still waits for an answer gets an error; returns when it is unmounted.
  ~HangingVolume();
  HangingVolume(const HangingVolume&) = delete;
  HangingVolume& operator=(const HangingVolume&) = delete;

  void setSize(std::uint64_t bytes) { tell("size " + std::to_string(bytes)); }
  void setFree(std::uint64_t bytes) { tell("free " + std::to_string(bytes)); }
  void addFile(const std::string& name, const std::string& line) { tell("file " + name + " " + line); }
  void addDirectory(const std::string& name) { tell("directory " + name); }
  /// One or more operations, apart by spaces.
  void hang(const std::string& operations = "all") { tell("hang " + operations); }
  void resume(const std::string& operations = "all") { tell("resume " + operations); }
  void fail(const std::string& operation, int error) { tell("fail " + operation + " " + std::to_string(error)); }
  /// Returns once somebody waits for an answer.
  void awaitHeld(const std::string& operations = "all") { tell("await " + operations); }
  /// How many wait.
  [[nodiscard]] std::size_t held(const std::string& operations = "all") { return number("held " + operations); }
  /// How many have ever asked.
  [[nodiscard]] std::size_t received(const std::string& operations = "all") { return number("received " + operations); }

  [[nodiscard]] const std::string& path() const { return directory_; }

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  /// Returns its answer, which begins with "ok".
  std::string tell(const std::string& command);
  [[nodiscard]] std::size_t number(const std::string& question);
  [[nodiscard]] std::string answer();

  std::string directory_;
  pid_t process_ = 0;
  std::unique_ptr<std::FILE, Close> commands_;
  std::unique_ptr<std::FILE, Close> answers_;
};

}  // namespace kelvane::test
