// SPDX-License-Identifier: Apache-2.0
// What happens to a file's name between the last look at it and its end.
#include "services/directory-cache/SetAside.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <utility>

#include "services/directory-cache/Removal.h"
#include "tests/services/CacheFixture.h"

namespace {

/// Runs once, before the system is next asked to rename or remove a name: when the last look is over.
std::function<void()> beforeNextChange;
/// Runs once, before the system is next asked to remove a name.
std::function<void()> beforeNextRemoval;
/// What the system answers instead of renaming; 0 for nothing instead.
int renamingError = 0;

void run(std::function<void()>& hook) {
  if (hook) {
    std::exchange(hook, nullptr)();
  }
}

template <typename Function>
Function* systems(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// In the place of the C library's, so that a test can act in the very moment.
extern "C" int renameat2(int fromDirectory, const char* from, int toDirectory, const char* to, unsigned flags) {
  run(beforeNextChange);
  if (renamingError != 0) {
    errno = renamingError;
    return -1;
  }
  static auto* const renames = systems<int(int, const char*, int, const char*, unsigned)>("renameat2");
  return renames(fromDirectory, from, toDirectory, to, flags);
}

extern "C" int unlinkat(int directory, const char* name, int flags) {
  run(beforeNextChange);
  run(beforeNextRemoval);
  static auto* const unlinks = systems<int(int, const char*, int)>("unlinkat");
  return unlinks(directory, name, flags);
}

namespace kelvane::directoryCache {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class AFileThatIsGoing : public CacheTest {
 protected:
  ~AFileThatIsGoing() override {
    beforeNextChange = nullptr;
    beforeNextRemoval = nullptr;
    renamingError = 0;
  }

  void write(const std::string& path, const std::string& text) const { std::ofstream(absolute(path)) << text; }
  std::string read(const std::string& path) const {
    std::ifstream file(absolute(path));
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::vector<std::string> entries() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(absolute("cache"))) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  RemovalOutcome remove() {
    const std::vector<DirectoryRules> directories = {rules()};
    const std::vector<OpenDirectory> open = openDirectoriesOn(root_, directories);
    Candidates candidates({100, 10'000}, std::nullopt);
    survey(open, 4, testNow, Cancellation(), [&](FoundLink link) { candidates.offer(std::move(link)); });
    const std::vector<Candidate> found = candidates.take().candidates;
    EXPECT_EQ(found.size(), 1U);
    return removeFile(open, found.at(0)).outcome;
  }
};

TEST_F(AFileThatIsGoing, IsNotTakenForOneThatIsRenamedIntoItsPlaceAfterTheLastLook) {
  for (int turn = 0; turn < 200; ++turn) {
    makeFile("cache/a", day);
    write("new", "precious");
    beforeNextChange = [this, turn] {
      // With the old file gone, or only elsewhere.
      if (turn % 2 == 1) {
        fs::rename(absolute("cache/a"), absolute("old"));
      }
      fs::rename(absolute("new"), absolute("cache/a"));
    };
    ASSERT_EQ(remove(), RemovalOutcome::Changed);
    ASSERT_EQ(read("cache/a"), "precious");
    ASSERT_THAT(entries(), ElementsAre("a"));
  }
}

TEST_F(AFileThatIsGoing, IsNotTakenForADirectoryThatIsRenamedIntoItsPlace) {
  makeFile("cache/a", day);
  fs::create_directory(absolute("new"));
  beforeNextChange = [this] {
    fs::remove(absolute("cache/a"));
    fs::rename(absolute("new"), absolute("cache/a"));
  };
  EXPECT_EQ(remove(), RemovalOutcome::Changed);
  EXPECT_TRUE(fs::is_directory(absolute("cache/a")));
}

TEST_F(AFileThatIsGoing, MakesRoomForAnotherOfItsNameBeforeItIsGone) {
  makeFile("cache/a", day);
  beforeNextRemoval = [this] { write("cache/a", "precious"); };
  EXPECT_EQ(remove(), RemovalOutcome::Removed);
  EXPECT_EQ(read("cache/a"), "precious");
  EXPECT_THAT(entries(), ElementsAre("a"));
}

TEST_F(AFileThatIsGoing, GetsItsNameBackWhenItCannotGo) {
  makeFile("cache/a", day);
  beforeNextChange = [this] { setTimes("cache/a", 0, day); };
  EXPECT_EQ(remove(), RemovalOutcome::Changed);
  EXPECT_THAT(entries(), ElementsAre("a"));
}

TEST_F(AFileThatIsGoing, IsKeptBesideANewOneOfItsNameWhenItCannotGo) {
  makeFile("cache/a", day);
  {
    std::optional<SetAside> aside =
        SetAside::take(Descriptor(::open(absolute("cache").c_str(), O_PATH | O_CLOEXEC)), "a");
    ASSERT_TRUE(aside);
    EXPECT_TRUE(aside->status()->isRegular());
    write("cache/a", "precious");
  }
  EXPECT_EQ(read("cache/a"), "precious");
  EXPECT_THAT(entries(), ElementsAre(StartsWith(SetAside::prefix), "a"));
}

TEST_F(AFileThatIsGoing, GoesWhereThereIsNoSpaceForAnotherName) {
  for (const int error : {ENOSPC, EDQUOT}) {
    makeFile("cache/a", day);
    renamingError = error;
    EXPECT_EQ(remove(), RemovalOutcome::Removed);
    EXPECT_THAT(entries(), IsEmpty());
  }
}

TEST_F(AFileThatIsGoing, IsLookedAtOnceMoreWhereThereIsNoSpaceForAnotherName) {
  makeFile("cache/a", day);
  write("new", "precious");
  renamingError = ENOSPC;
  beforeNextChange = [this] { fs::rename(absolute("new"), absolute("cache/a")); };
  EXPECT_EQ(remove(), RemovalOutcome::Changed);
  EXPECT_EQ(read("cache/a"), "precious");
}

TEST_F(AFileThatIsGoing, GoesAndIsPutBackOnAFileSystemThatCannotRenameWithoutReplacing) {
  makeFile("cache/a", day);
  renamingError = EINVAL;
  EXPECT_EQ(remove(), RemovalOutcome::Removed);
  EXPECT_THAT(entries(), IsEmpty());
  makeFile("cache/a", day);
  write("new", "precious");
  beforeNextChange = [this] { fs::rename(absolute("new"), absolute("cache/a")); };
  EXPECT_EQ(remove(), RemovalOutcome::Changed);
  EXPECT_EQ(read("cache/a"), "precious");
  EXPECT_THAT(entries(), ElementsAre("a"));
}

TEST_F(AFileThatIsGoing, StaysWhenItIsNotToBeRenamed) {
  makeFile("cache/a", day);
  renamingError = EACCES;
  EXPECT_EQ(remove(), RemovalOutcome::Forbidden);
  EXPECT_THAT(entries(), ElementsAre("a"));
}

}  // namespace
}  // namespace kelvane::directoryCache
