// SPDX-License-Identifier: Apache-2.0
// The file in which an administrator changes when volumes count as low on space.
#include "platform/linux/volumes/VolumeLevelsFile.h"

#include <cerrno>
#include <string>
#include <utility>

#include "platform/Limits.h"
#include "platform/PropertyList.h"
#include "platform/Reporting.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "platform/linux/runtime/Mutex.h"
#include "platform/linux/volumes/FileContents.h"
#include "platform/linux/volumes/Paths.h"

namespace kelvane {

namespace {

std::string problemOf(const std::string& text, const char* consequence) {
  return std::string(paths::volumeLevelsFile) + ": " + text + "; " + consequence;
}

std::string withDefaults(const std::string& text) {
  return problemOf(text, "the defaults apply");
}

/// Logs what is wrong with the file when it differs from what was logged last.
void reportProblem(const std::string& problem) {
  static auto& mutex = *new runtime::Mutex;
  static auto& reported = *new std::string;
  {
    const runtime::Lock lock(mutex);
    if (problem == reported) {
      return;
    }
    reported = problem;
  }
  if (!problem.empty()) {
    reporting::reportFailure("VolumeLevelsFile", problem);
  }
}

}  // namespace

/// What the file meant when it was read last.
class VolumeLevelsFile::Known {
 public:
  std::optional<Meaning> of(const struct stat& file) {
    const runtime::Lock lock(mutex_);
    return meaning_ && isSame(file) ? meaning_ : std::nullopt;
  }
  /// Whatever the file is now.
  std::optional<Meaning> last() {
    const runtime::Lock lock(mutex_);
    return meaning_;
  }
  void set(const struct stat& file, const Meaning& meaning) {
    const runtime::Lock lock(mutex_);
    file_ = file;
    meaning_ = meaning;
  }
  void forget() {
    const runtime::Lock lock(mutex_);
    meaning_.reset();
  }

 private:
  bool isSame(const struct stat& file) const KELVANE_REQUIRES(mutex_) {
    return file.st_dev == file_.st_dev && file.st_ino == file_.st_ino && file.st_size == file_.st_size &&
           file.st_ctim.tv_sec == file_.st_ctim.tv_sec && file.st_ctim.tv_nsec == file_.st_ctim.tv_nsec;
  }

  runtime::Mutex mutex_;
  struct stat file_ KELVANE_GUARDED_BY(mutex_) = {};
  std::optional<Meaning> meaning_ KELVANE_GUARDED_BY(mutex_);
};

VolumeLevelsFile::Known& VolumeLevelsFile::known() {
  static auto* const known = new Known;
  return *known;
}

VolumeLevelsFile::VolumeLevelsFile() : VolumeLevelsFile(fileError(ETIMEDOUT)) {}

VolumeLevelsFile VolumeLevelsFile::find(FileSystemProbe::Visit& visit) {
  const auto walked = configurationAt(visit, paths::volumeLevelsFile);
  const auto* place = std::get_if<FileDescriptor>(&walked);
  if (place == nullptr) {
    return VolumeLevelsFile(std::get<files::Error>(walked));
  }
  struct stat status = {};
  if (fstat(place->get(), &status) != 0) {
    return VolumeLevelsFile(fileError(errno));
  }
  if (auto meaning = known().of(status)) {
    return VolumeLevelsFile(*std::move(meaning));
  }
  VolumeLevelsFile file(std::visit([](auto&& contents) { return Found(std::forward<decltype(contents)>(contents)); },
                                   readPlace(*place, limits::propertyListBytes)));
  file.status_ = status;
  return file;
}

VolumeLevels VolumeLevelsFile::levels() const {
  Meaning meaning;
  if (const auto* same = std::get_if<Meaning>(&found_)) {
    meaning = *same;
  } else if (const auto* error = std::get_if<files::Error>(&found_)) {
    meaning = meaningWithout(*error);
  } else {
    meaning = meaningOf(std::get<Data>(found_));
    known().set(*status_, meaning);
  }
  reportProblem(meaning.problem);
  return meaning.levels;
}

VolumeLevelsFile::Meaning VolumeLevelsFile::meaningOf(const Data& contents) {
  const propertyList::Result parsed = propertyList::parse(contents);
  if (const auto* error = std::get_if<propertyList::Error>(&parsed)) {
    return {{}, withDefaults(error->text)};
  }
  const Value& configuration = std::get<Value>(parsed);
  return {VolumeLevels(configuration), configuration.isDictionary() ? "" : withDefaults("not a dictionary")};
}

VolumeLevelsFile::Meaning VolumeLevelsFile::meaningWithout(const files::Error& error) {
  if (error.isMissing) {
    known().forget();
    return {};
  }
  const auto last = known().last();
  return last ? Meaning{last->levels, problemOf(error.text, "what it said last applies")}
              : Meaning{{}, withDefaults(error.text)};
}

}  // namespace kelvane
