// SPDX-License-Identifier: Apache-2.0
// The volume that a person named on the command line.
#include "tools/kelvanectl/VolumeArgument.h"

#include <gmock/gmock.h>

namespace kelvane::ctl {
namespace {

using testing::HasSubstr;

std::string refusal(const std::string& path) {
  const auto resolved = resolveVolume(path);
  const auto* error = std::get_if<VolumeError>(&resolved);
  return error != nullptr ? error->text : "";
}

TEST(AVolumeArgument, IsRefusedWhenItDoesNotExist) {
  EXPECT_THAT(refusal("/nowhere/at/all"), HasSubstr("no such volume: /nowhere/at/all: No such file or directory"));
  EXPECT_NE(refusal(""), "");
}

TEST(AVolumeArgument, IsRefusedWhenItIsNoFileSystemForData) {
  EXPECT_THAT(refusal("/proc"), HasSubstr("/proc is not a mount point of a writable, local file system"));
}

TEST(AVolumeArgument, IsRefusedInsideAVolume) {
  EXPECT_THAT(refusal("/usr/bin"), HasSubstr("/usr/bin is not a mount point"));
}

TEST(AVolumeArgument, MayBeWrittenInAnyWayThatLeadsToTheMountPoint) {
  const auto resolved = resolveVolume("/dev/../dev/./shm/");
  ASSERT_TRUE(std::holds_alternative<std::string>(resolved)) << std::get<VolumeError>(resolved).text;
  EXPECT_EQ(std::get<std::string>(resolved), "/dev/shm");
}

}  // namespace
}  // namespace kelvane::ctl
