// SPDX-License-Identifier: Apache-2.0
// As whom the directory cache runs.
#include "services/directory-cache/ProcessUser.h"

#include <gmock/gmock.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace kelvane::directoryCache {
namespace {

using testing::HasSubstr;

constexpr char stranger[] = "nobody";
const uid_t strangersNumber = getpwnam(stranger)->pw_uid;

/// Runs the body in a process of its own, as root if this is root, and tells whether it returned true.
bool holdsInAnotherProcess(const std::function<bool()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(body() ? 0 : 1);
  }
  int status = 1;
  return waitpid(child, &status, 0) == child && status == 0;
}

bool isRoot() {
  return geteuid() == 0;
}

/// To test from what anybody may do.
void giveUpRoot() {
  if (isRoot()) {
    EXPECT_EQ(setresuid(strangersNumber, strangersNumber, strangersNumber), 0);
  }
}

TEST(TheProcess, MayBeAnybodyButRootWithoutAUser) {
  EXPECT_TRUE(holdsInAnotherProcess([] {
    const bool holdsForRoot = !isRoot() || runAsUser("")->find("refusing to run as root") == 0;
    giveUpRoot();
    return holdsForRoot && !runAsUser("");
  }));
}

TEST(TheProcess, BecomesItsUserForGood) {
  EXPECT_TRUE(holdsInAnotherProcess([] {
    const bool wasRoot = isRoot();
    const std::string user = wasRoot ? stranger : std::to_string(geteuid());
    return !runAsUser(user) && geteuid() == (wasRoot ? strangersNumber : geteuid()) && !isRoot() && setuid(0) != 0;
  }));
}

TEST(TheProcess, GivesUpTheGroupsOfRoot) {
  EXPECT_TRUE(holdsInAnotherProcess([] {
    const gid_t expected = isRoot() ? getpwnam(stranger)->pw_gid : getegid();
    const std::string user = isRoot() ? stranger : std::to_string(geteuid());
    if (runAsUser(user) || getegid() != expected || getgid() != expected) {
      return false;
    }
    gid_t groups[64];
    const int count = getgroups(64, groups);
    return std::find(groups, groups + count, gid_t{0}) == groups + count;
  }));
}

TEST(TheProcess, TakesAUsersNumber) {
  EXPECT_TRUE(holdsInAnotherProcess([] {
    const uid_t number = isRoot() ? strangersNumber : geteuid();
    return !runAsUser(std::to_string(number)) && geteuid() == number;
  }));
}

TEST(TheProcess, CannotBecomeAnotherUserThanItIs) {
  EXPECT_TRUE(holdsInAnotherProcess([] {
    giveUpRoot();
    return runAsUser("root").value_or("").find("running as another user than root") != std::string::npos;
  }));
}

TEST(TheProcess, NeedsAUserThatThereIs) {
  EXPECT_THAT(runAsUser("no-such-user").value_or(""), HasSubstr("there is no user no-such-user"));
}

TEST(TheProcess, MayBeRootWhenThatIsAskedFor) {
  EXPECT_TRUE(holdsInAnotherProcess([] { return isRoot() ? !runAsUser("root") : runAsUser("root").has_value(); }));
}

}  // namespace
}  // namespace kelvane::directoryCache
