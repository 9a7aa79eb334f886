// SPDX-License-Identifier: Apache-2.0
// The files as a test scripts them.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/Files.h"

namespace kelvane::simulated {

/// A tree of files beneath "/". Paths are absolute; missing directories above a path are made, and what
/// stood at the path is replaced.
class Files {
 public:
  void write(const std::string& path, std::string_view text);
  void write(const std::string& path, Data bytes);
  void makeDirectory(const std::string& path);
  void makeFifo(const std::string& path);
  /// A symbolic link to an absolute path.
  void makeLink(const std::string& path, const std::string& target);
  /// Makes a file or directory that is there give this error when it is read.
  void makeUnreadable(const std::string& path, const std::string& error = "Permission denied");
  void remove(const std::string& path);

  files::Listing entriesBeneath(const std::string& directory) const;
  std::variant<Data, files::Error> read(const std::string& path, std::size_t maximumBytes) const;
  Result<std::string> realPath(const std::string& path) const;

 private:
  struct Node {
    enum class Kind { File, Directory, Fifo, Link } kind = Kind::Directory;
    Data contents;
    std::string target;
    std::optional<std::string> error;
    std::map<std::string, Node> entries;
  };
  Node& make(const std::string& path, Node::Kind kind);
  /// Follows no links; stops the process when there is nothing.
  Node& nodeAt(const std::vector<std::string>& components);
  struct Found {
    /// Null when there is nothing at the path.
    const Node* node = nullptr;
    std::string path;
    /// Why there is nothing.
    files::Error error;
  };
  /// Follows links.
  Found find(const std::string& path) const;
  /// Of the components the last so many are of the path itself, and not of a link's target.
  Found find(const std::vector<std::string>& components, std::size_t own, int linksLeft) const;
  static void collect(const Node& directory, const std::string& path, const std::string& prefix,
                      files::Listing& listing);

  Node root_;
};

}  // namespace kelvane::simulated
