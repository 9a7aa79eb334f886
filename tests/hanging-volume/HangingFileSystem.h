// SPDX-License-Identifier: Apache-2.0
// An empty file system that stops answering when it is told to.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tests/hanging-volume/FuseMount.h"

namespace kelvane::test {

/// A root directory, a few files and empty directories in it, and figures of free space. Requests of each kind are
/// answered, answered with an error, or held until the kind is resumed: who asked waits as for a disk that does not
/// answer, whatever signal it gets. One thread uses it.
class HangingFileSystem {
 public:
  using Operation = std::uint32_t;

  explicit HangingFileSystem(FuseMount& mount) : mount_(mount) {}

  /// By its name among FUSE's operations, in small letters.
  [[nodiscard]] static std::optional<Operation> operation(std::string_view name);
  [[nodiscard]] static std::set<Operation> allOperations();

  void setSize(std::uint64_t bytes) { size_ = bytes; }
  void setFree(std::uint64_t bytes) { free_ = bytes; }
  /// Everybody may read and execute it.
  void addFile(const std::string& name, const std::string& contents);
  /// Empty.
  void addDirectory(const std::string& name);

  void hang(Operation operation) { hung_.insert(operation); }
  void fail(Operation operation, int error) { failing_[operation] = error; }
  /// Answers what was held of the kind, and does so from now on.
  void resume(Operation operation);

  /// How many are held now, and how many have come since the beginning.
  [[nodiscard]] std::size_t held(Operation operation) const;
  [[nodiscard]] std::size_t received(Operation operation) const;

  void handle(const FuseRequest& request);

 private:
  struct File {
    std::string name;
    std::string contents;
    bool isDirectory = false;
  };

  void answer(const FuseRequest& request) const;
  void answerInit(const FuseRequest& request) const;
  void answerGetattr(const FuseRequest& request) const;
  void answerLookup(const FuseRequest& request) const;
  void answerStatfs(const FuseRequest& request) const;
  void answerRead(const FuseRequest& request) const;
  void answerReaddir(const FuseRequest& request) const;
  [[nodiscard]] const File* file(std::uint64_t node) const;
  [[nodiscard]] fuse_attr attributes(std::uint64_t node) const;

  FuseMount& mount_;
  std::uint64_t size_ = std::uint64_t{1} << 30;
  std::uint64_t free_ = std::uint64_t{1} << 29;
  /// Each one's node is its place here, after those that FUSE reserves and the root.
  std::vector<File> files_;
  std::set<Operation> hung_;
  std::map<Operation, int> failing_;
  std::map<Operation, std::size_t> received_;
  std::vector<FuseRequest> held_;
};

}  // namespace kelvane::test
