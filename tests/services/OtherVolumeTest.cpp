// SPDX-License-Identifier: Apache-2.0
// A cache on several volumes, one of which may hang.
#include <gtest/gtest.h>

#include "services/directory-cache/Survey.h"
#include "tests/hanging-volume/HangingVolume.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane::directoryCache {
namespace {

DirectoryRules rulesFor(const std::string& path) {
  DirectoryRules rules;
  rules.path = path;
  return rules;
}

TEST(ADirectoryOnAnotherVolume, IsNotAskedAnythingAsThatVolumeMayHang) {
  test::mountTmpfs("/mnt/good", "size=1M,mode=755");
  test::HangingVolume other("/mnt/other");
  const std::vector<DirectoryRules> directories = {rulesFor("/mnt/other"), rulesFor("/mnt/good")};
  const std::size_t before = other.received();
  EXPECT_EQ(openDirectoriesOn("/mnt/good", directories).size(), 1U);
  EXPECT_EQ(other.received(), before);
  EXPECT_EQ(openDirectoriesOn("/mnt/other", directories).size(), 1U);
  EXPECT_NE(other.received(), before);
}

}  // namespace
}  // namespace kelvane::directoryCache
