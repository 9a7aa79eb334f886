// SPDX-License-Identifier: Apache-2.0
// What a hanging volume is told, line by line.
#include "tests/hanging-volume/Commands.h"

#include <cstddef>
#include <cstdint>

namespace kelvane::test {

namespace {

/// Nothing if one of the words is none, or there are no words.
std::set<HangingFileSystem::Operation> readOperations(std::istringstream& words) {
  std::set<HangingFileSystem::Operation> operations;
  std::string word;
  while (words >> word) {
    if (word == "all") {
      operations.merge(HangingFileSystem::allOperations());
    } else if (const auto operation = HangingFileSystem::operation(word)) {
      operations.insert(*operation);
    } else {
      return {};
    }
  }
  return operations;
}

}  // namespace

std::optional<std::string> Commands::run(const std::string& line) {
  std::istringstream words(line);
  std::string name;
  words >> name;
  if (name == "held" || name == "received" || name == "await") {
    const Operations operations = readOperations(words);
    if (!operations.empty() && name == "await") {
      awaited_ = operations;
      return late();
    }
    return operations.empty() ? "error: no operation" : count(name, operations);
  }
  return change(name, words) ? "ok" : "error: what is \"" + line + "\"?";
}

std::optional<std::string> Commands::late() {
  for (const HangingFileSystem::Operation operation : awaited_) {
    if (files_.held(operation) > 0) {
      awaited_.clear();
      return "ok";
    }
  }
  return std::nullopt;
}

bool Commands::change(const std::string& name, std::istringstream& words) {
  if (name == "size" || name == "free") {
    std::uint64_t bytes = 0;
    words >> bytes;
    name == "size" ? files_.setSize(bytes) : files_.setFree(bytes);
    return !words.fail();
  }
  if (name == "file") {
    std::string file;
    std::string contents;
    words >> file >> std::ws;
    std::getline(words, contents);
    files_.addFile(file, contents);
    return !file.empty();
  }
  if (name == "directory") {
    std::string directory;
    words >> directory;
    files_.addDirectory(directory);
    return !directory.empty();
  }
  if (name == "fail") {
    std::string operation;
    int error = 0;
    words >> operation >> error;
    std::istringstream kinds(operation);
    for (const HangingFileSystem::Operation each : readOperations(kinds)) {
      files_.fail(each, error);
    }
    return error > 0;
  }
  const Operations operations = readOperations(words);
  for (const HangingFileSystem::Operation operation : operations) {
    name == "hang" ? files_.hang(operation) : files_.resume(operation);
  }
  return !operations.empty() && (name == "hang" || name == "resume");
}

std::string Commands::count(const std::string& name, const Operations& operations) const {
  std::size_t total = 0;
  for (const HangingFileSystem::Operation operation : operations) {
    total += name == "held" ? files_.held(operation) : files_.received(operation);
  }
  return "ok " + std::to_string(total);
}

}  // namespace kelvane::test
