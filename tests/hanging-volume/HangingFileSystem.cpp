// SPDX-License-Identifier: Apache-2.0
// An empty file system that stops answering when it is told to.
#include "tests/hanging-volume/HangingFileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace kelvane::test {

namespace {

constexpr std::uint32_t blockBytes = 4096;
constexpr std::uint64_t firstFileNode = FUSE_ROOT_ID + 1;

/// What may be held. Not the mount's own beginning and end.
const std::map<std::string_view, HangingFileSystem::Operation> operations = {
    {"access", FUSE_ACCESS},       {"flush", FUSE_FLUSH},         {"fsync", FUSE_FSYNC},
    {"fsyncdir", FUSE_FSYNCDIR},   {"getattr", FUSE_GETATTR},     {"getxattr", FUSE_GETXATTR},
    {"interrupt", FUSE_INTERRUPT}, {"listxattr", FUSE_LISTXATTR}, {"lookup", FUSE_LOOKUP},
    {"open", FUSE_OPEN},           {"opendir", FUSE_OPENDIR},     {"read", FUSE_READ},
    {"readdir", FUSE_READDIR},     {"release", FUSE_RELEASE},     {"releasedir", FUSE_RELEASEDIR},
    {"statfs", FUSE_STATFS},       {"syncfs", FUSE_SYNCFS},
};

void append(std::vector<std::byte>& bytes, const std::string& name, std::uint64_t node, std::uint32_t type) {
  fuse_dirent entry = {};
  entry.ino = node;
  entry.off = bytes.size() + FUSE_DIRENT_ALIGN(FUSE_NAME_OFFSET + name.size());
  entry.namelen = static_cast<std::uint32_t>(name.size());
  entry.type = type;
  const std::size_t begin = bytes.size();
  bytes.resize(entry.off);
  std::memcpy(&bytes[begin], &entry, FUSE_NAME_OFFSET);
  std::memcpy(&bytes[begin + FUSE_NAME_OFFSET], name.data(), name.size());
}

}  // namespace

std::optional<HangingFileSystem::Operation> HangingFileSystem::operation(std::string_view name) {
  const auto found = operations.find(name);
  return found == operations.end() ? std::nullopt : std::optional(found->second);
}

std::set<HangingFileSystem::Operation> HangingFileSystem::allOperations() {
  std::set<Operation> all;
  for (const auto& [name, operation] : operations) {
    // It says that a signal has come for who waits, and nobody waits for it.
    if (operation != FUSE_INTERRUPT) {
      all.insert(operation);
    }
  }
  return all;
}

void HangingFileSystem::addFile(const std::string& name, const std::string& contents) {
  files_.push_back({name, contents});
}

void HangingFileSystem::addDirectory(const std::string& name) {
  files_.push_back({name, "", true});
}

void HangingFileSystem::resume(Operation operation) {
  hung_.erase(operation);
  failing_.erase(operation);
  const auto isOfKind = [operation](const FuseRequest& request) { return request.header.opcode == operation; };
  for (const FuseRequest& request : held_) {
    if (isOfKind(request)) {
      answer(request);
    }
  }
  std::erase_if(held_, isOfKind);
}

std::size_t HangingFileSystem::held(Operation operation) const {
  return static_cast<std::size_t>(
      std::ranges::count(held_, operation, [](const FuseRequest& request) { return request.header.opcode; }));
}

std::size_t HangingFileSystem::received(Operation operation) const {
  const auto found = received_.find(operation);
  return found == received_.end() ? 0 : found->second;
}

void HangingFileSystem::handle(const FuseRequest& request) {
  const Operation operation = request.header.opcode;
  ++received_[operation];
  if (hung_.contains(operation)) {
    held_.push_back(request);
  } else if (const auto failing = failing_.find(operation); failing != failing_.end()) {
    mount_.answer(request, failing->second);
  } else {
    answer(request);
  }
}

void HangingFileSystem::answer(const FuseRequest& request) const {
  switch (request.header.opcode) {
    case FUSE_INIT:
      return answerInit(request);
    case FUSE_LOOKUP:
      return answerLookup(request);
    case FUSE_GETATTR:
      return answerGetattr(request);
    case FUSE_STATFS:
      return answerStatfs(request);
    case FUSE_OPEN:
      if ((request.as<fuse_open_in>().flags & O_ACCMODE) != O_RDONLY) {
        return mount_.answer(request, EACCES);
      }
      return mount_.answerWith(request, fuse_open_out{});
    case FUSE_OPENDIR:
      return mount_.answerWith(request, fuse_open_out{});
    case FUSE_READ:
      return answerRead(request);
    case FUSE_READDIR:
      return answerReaddir(request);
    case FUSE_ACCESS:
    case FUSE_FLUSH:
    case FUSE_FSYNC:
    case FUSE_FSYNCDIR:
    case FUSE_RELEASE:
    case FUSE_RELEASEDIR:
    case FUSE_SYNCFS:
    case FUSE_DESTROY:
      return mount_.answer(request, 0);
    case FUSE_FORGET:
    case FUSE_BATCH_FORGET:
    case FUSE_INTERRUPT:
      return;
    default:
      return mount_.answer(request, ENOSYS);
  }
}

void HangingFileSystem::answerInit(const FuseRequest& request) const {
  const auto& asked = request.as<fuse_init_in>();
  fuse_init_out answered = {};
  answered.major = FUSE_KERNEL_VERSION;
  answered.minor = std::min<std::uint32_t>(asked.minor, FUSE_KERNEL_MINOR_VERSION);
  answered.max_readahead = asked.max_readahead;
  answered.max_write = blockBytes;
  mount_.answerWith(request, answered);
}

void HangingFileSystem::answerGetattr(const FuseRequest& request) const {
  fuse_attr_out answered = {};
  answered.attr = attributes(request.header.nodeid);
  mount_.answerWith(request, answered);
}

void HangingFileSystem::answerLookup(const FuseRequest& request) const {
  const std::string_view name(reinterpret_cast<const char*>(request.arguments.data()));
  const auto found = std::ranges::find(files_, name, &File::name);
  if (found == files_.end() || request.header.nodeid != FUSE_ROOT_ID) {
    return mount_.answer(request, ENOENT);
  }
  // Both are to be asked for anew every time.
  fuse_entry_out answered = {};
  answered.nodeid = firstFileNode + static_cast<std::uint64_t>(found - files_.begin());
  answered.attr = attributes(answered.nodeid);
  mount_.answerWith(request, answered);
}

void HangingFileSystem::answerStatfs(const FuseRequest& request) const {
  fuse_statfs_out answered = {};
  answered.st.blocks = size_ / blockBytes;
  answered.st.bfree = free_ / blockBytes;
  answered.st.bavail = free_ / blockBytes;
  answered.st.bsize = blockBytes;
  answered.st.frsize = blockBytes;
  answered.st.namelen = NAME_MAX;
  mount_.answerWith(request, answered);
}

void HangingFileSystem::answerRead(const FuseRequest& request) const {
  const auto& asked = request.as<fuse_read_in>();
  const File* const read = file(request.header.nodeid);
  const std::string_view contents = read == nullptr ? std::string_view() : read->contents;
  const std::string_view part = contents.substr(std::min<std::size_t>(asked.offset, contents.size()), asked.size);
  mount_.answer(request, std::as_bytes(std::span(part)));
}

void HangingFileSystem::answerReaddir(const FuseRequest& request) const {
  const auto& asked = request.as<fuse_read_in>();
  std::vector<std::byte> entries;
  append(entries, ".", request.header.nodeid, DT_DIR);
  append(entries, "..", FUSE_ROOT_ID, DT_DIR);
  for (std::size_t index = 0; request.header.nodeid == FUSE_ROOT_ID && index < files_.size(); ++index) {
    append(entries, files_[index].name, firstFileNode + index, files_[index].isDirectory ? DT_DIR : DT_REG);
  }
  // Whole entries: what is cut off is asked for again, from the offset of the last one that was taken.
  const std::span<const std::byte> all(entries);
  const auto rest = all.subspan(std::min<std::size_t>(asked.offset, all.size()));
  mount_.answer(request, rest.first(std::min<std::size_t>(asked.size, rest.size())));
}

const HangingFileSystem::File* HangingFileSystem::file(std::uint64_t node) const {
  return node < firstFileNode || node - firstFileNode >= files_.size() ? nullptr : &files_[node - firstFileNode];
}

fuse_attr HangingFileSystem::attributes(std::uint64_t node) const {
  const File* const found = file(node);
  const bool isDirectory = found == nullptr || found->isDirectory;
  const std::uint64_t size = isDirectory ? blockBytes : found->contents.size();
  fuse_attr attributes = {};
  attributes.ino = node;
  attributes.size = size;
  attributes.blocks = (size + 511) / 512;
  attributes.mode = (isDirectory ? S_IFDIR : S_IFREG) | 0755U;
  attributes.nlink = isDirectory ? 2U : 1U;
  attributes.blksize = blockBytes;
  return attributes;
}

}  // namespace kelvane::test
