// SPDX-License-Identifier: Apache-2.0
// Files in memory.
#include "platform/simulated/SimulatedFiles.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <utility>

#include "platform/simulated/SimulatedCalls.h"

namespace kelvane {

namespace simulated {

namespace {

std::vector<std::string> componentsOf(const std::string& path) {
  std::vector<std::string> components;
  for (std::size_t start = 0; start < path.size();) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) {
      end = path.size();
    }
    if (end > start) {
      components.push_back(path.substr(start, end - start));
    }
    start = end + 1;
  }
  return components;
}

}  // namespace

void Files::write(const std::string& path, std::string_view text) {
  write(path, Data(text.begin(), text.end()));
}

void Files::write(const std::string& path, Data bytes) {
  make(path, Node::Kind::File).contents = std::move(bytes);
}

void Files::makeDirectory(const std::string& path) {
  make(path, Node::Kind::Directory);
}

void Files::makeFifo(const std::string& path) {
  make(path, Node::Kind::Fifo);
}

void Files::makeLink(const std::string& path, const std::string& target) {
  make(path, Node::Kind::Link).target = target;
}

void Files::makeUnreadable(const std::string& path, const std::string& error) {
  nodeAt(componentsOf(path)).error = error;
}

void Files::remove(const std::string& path) {
  std::vector<std::string> components = componentsOf(path);
  if (components.empty()) {
    fail("the root directory cannot be removed");
  }
  const std::string last = components.back();
  components.pop_back();
  nodeAt(components).entries.erase(last);
}

files::Listing Files::entriesBeneath(const std::string& directory) const {
  files::Listing listing;
  const Found found = find(directory);
  if (found.node != nullptr && found.node->kind == Node::Kind::Directory) {
    collect(*found.node, directory, "", listing);
  } else if (found.node != nullptr) {
    listing.failures.push_back(directory + ": Not a directory");
  } else if (!found.error.isMissing) {
    listing.failures.push_back(directory + ": " + found.error.text);
  }
  return listing;
}

std::variant<Data, files::Error> Files::read(const std::string& path, std::size_t maximumBytes) const {
  const Found found = find(path);
  const Node* node = found.node;
  if (node == nullptr) {
    return found.error;
  }
  if (node->error) {
    return files::Error{.text = *node->error};
  }
  if (node->kind == Node::Kind::Directory) {
    return files::Error{.text = "Is a directory"};
  }
  if (node->kind != Node::Kind::File) {
    return files::Error{.text = "Not a regular file"};
  }
  if (node->contents.size() > maximumBytes) {
    return files::Error{.text = "File too large"};
  }
  return node->contents;
}

Result<std::string> Files::realPath(const std::string& path) const {
  Found found = find(path);
  return found.node != nullptr ? Result<std::string>(std::move(found.path))
                               : Failure{.number = ENOENT, .tried = "looking for " + path};
}

Files::Node& Files::make(const std::string& path, Node::Kind kind) {
  Node* node = &root_;
  for (const std::string& component : componentsOf(path)) {
    node = &node->entries[component];
  }
  if (node->kind != kind || kind != Node::Kind::Directory) {
    *node = Node{kind, {}, {}, {}, {}};
  }
  return *node;
}

Files::Node& Files::nodeAt(const std::vector<std::string>& components) {
  Node* node = &root_;
  for (const std::string& component : components) {
    const auto entry = node->entries.find(component);
    if (entry == node->entries.end()) {
      fail("no file " + component);
    }
    node = &entry->second;
  }
  return *node;
}

Files::Found Files::find(const std::string& path) const {
  constexpr int mostLinks = 8;
  const std::vector<std::string> components = componentsOf(path);
  return find(components, components.size(), mostLinks);
}

Files::Found Files::find(const std::vector<std::string>& components, std::size_t own, int linksLeft) const {
  const auto nothing = [](files::Error error) { return Found{nullptr, "", std::move(error)}; };
  const Node* node = &root_;
  std::string real;
  for (std::size_t index = 0; index < components.size(); ++index) {
    const std::size_t left = components.size() - index;
    const auto entry = node->entries.find(components[index]);
    if (entry == node->entries.end() && node->kind != Node::Kind::Directory) {
      return nothing({.text = "Not a directory"});
    }
    if (entry == node->entries.end()) {
      return nothing(left > own ? files::Error{.text = "A symbolic link leads nowhere"}
                                : files::Error{.text = "No such file or directory", .isMissing = true});
    }
    node = &entry->second;
    real += "/" + components[index];
    if (node->kind == Node::Kind::Link) {
      if (linksLeft == 0) {
        return nothing({.text = "Too many levels of symbolic links"});
      }
      std::vector<std::string> target = componentsOf(node->target);
      target.insert(target.end(), components.begin() + static_cast<std::ptrdiff_t>(index) + 1, components.end());
      return find(target, std::min(own, left - 1), linksLeft - 1);
    }
  }
  return {node, real.empty() ? "/" : real, {}};
}

void Files::collect(const Node& directory, const std::string& path, const std::string& prefix,
                    files::Listing& listing) {
  if (directory.error) {
    listing.failures.push_back(path + (prefix.empty() ? "" : "/" + prefix) + ": " + *directory.error);
    return;
  }
  for (const auto& [name, node] : directory.entries) {
    listing.entries.push_back(prefix + name);
    if (node.kind == Node::Kind::Directory) {
      collect(node, path, prefix + name + "/", listing);
    }
  }
}

}  // namespace simulated

files::Listing files::entriesBeneath(const std::string& directory) {
  return simulated::world().files.entriesBeneath(directory);
}

std::variant<Data, files::Error> files::read(const std::string& path, std::size_t maximumBytes) {
  return simulated::world().files.read(path, maximumBytes);
}

Result<std::string> files::realPath(const std::string& path) {
  return simulated::world().files.realPath(path);
}

}  // namespace kelvane
