// SPDX-License-Identifier: Apache-2.0
// Which mount a path is on, without asking its file system.
#include "services/directory-cache/Mounts.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

namespace kelvane::directoryCache {

namespace {

bool isOctal(const std::string& text) {
  return text.size() == 3 && text.find_first_not_of("01234567") == std::string::npos;
}

/// Bytes that would break the line are written as a backslash and three octal digits.
std::string unescaped(const std::string& text) {
  std::string plain;
  for (std::size_t index = 0; index < text.size(); ++index) {
    const std::string digits = text[index] == '\\' ? text.substr(index + 1, 3) : "";
    plain += isOctal(digits) ? static_cast<char>(std::stoi(digits, nullptr, 8)) : text[index];
    index += isOctal(digits) ? digits.size() : 0;
  }
  return plain;
}

bool isOn(const std::string& path, const std::string& mount) {
  return mount == "/" || path == mount || path.starts_with(mount + "/");
}

}  // namespace

Mounts::Mounts(const std::string& text) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::uint64_t number = 0;
    std::string parent;
    std::string device;
    std::string root;
    std::string path;
    if (fields >> number >> parent >> device >> root >> path) {
      mounts_.push_back({number, unescaped(path), device});
    }
  }
}

Mounts Mounts::ofThisProcess() {
  std::ifstream file("/proc/self/mountinfo");
  return Mounts({std::istreambuf_iterator<char>(file), {}});
}

bool Mounts::isElsewhere(const std::string& path, const std::string& volume) const {
  const Mount* const there = find(volume);
  const Mount* const here = find(path);
  return there != nullptr && there->path == volume && here != nullptr && here->device != there->device;
}

bool Mounts::areOfOneFileSystem(std::uint64_t one, std::uint64_t other) const {
  const auto found = std::ranges::find(mounts_, one, &Mount::number);
  return found != mounts_.end() && std::ranges::any_of(mounts_, [&](const Mount& mount) {
           return mount.number == other && mount.device == found->device;
         });
}

const Mounts::Mount* Mounts::find(const std::string& path) const {
  const Mount* found = nullptr;
  for (const Mount& mount : mounts_) {
    if (isOn(path, mount.path) && (found == nullptr || mount.path.size() >= found->path.size())) {
      found = &mount;
    }
  }
  return found;
}

}  // namespace kelvane::directoryCache
