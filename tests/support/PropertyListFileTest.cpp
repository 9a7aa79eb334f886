// SPDX-License-Identifier: Apache-2.0
// Property lists in files: what is read, and why something is not.
#include "support/PropertyListFile.h"

#include <gtest/gtest.h>

#include "platform/Limits.h"
#include "platform/simulated/Simulation.h"
#include "tests/harness/PrintValue.h"

namespace kelvane::test {
namespace {

class APropertyListFile : public testing::Test {
 protected:
  static constexpr char path[] = "/some/file";

  /// The error's text; empty when there is none.
  static std::string error() {
    const auto read = readPropertyListFile(path);
    const auto* error = std::get_if<FileError>(&read);
    return error != nullptr ? error->text : "";
  }

  Simulation simulation;
};

TEST_F(APropertyListFile, IsReadInEachFormat) {
  simulation.files().write(path, "<plist><dict><key>a</key><string>b</string></dict></plist>");
  EXPECT_EQ(std::get<Value>(readPropertyListFile(path)), Value(Value::Dictionary{{"a", "b"}}));
  simulation.files().write(path, "{ a = c; }");
  EXPECT_EQ(std::get<Value>(readPropertyListFile(path)), Value(Value::Dictionary{{"a", "c"}}));
}

TEST_F(APropertyListFile, ThatIsMissingSaysSo) {
  EXPECT_TRUE(std::get<FileError>(readPropertyListFile(path)).isMissing);
  simulation.files().write(path, "<plist>");
  EXPECT_FALSE(std::get<FileError>(readPropertyListFile(path)).isMissing);
}

TEST_F(APropertyListFile, ThatCannotBeReadSaysWhy) {
  simulation.files().write(path, "{}");
  simulation.files().makeUnreadable(path, "Input/output error");
  EXPECT_EQ(error(), "Input/output error");
}

TEST_F(APropertyListFile, ThatDoesNotParseSaysWhy) {
  simulation.files().write(path, "<plist><dict>");
  EXPECT_NE(error(), "");
}

TEST_F(APropertyListFile, MayBeAsLargeAsTheLimitAndNoLarger) {
  const std::string list = "{ a = b; }";
  simulation.files().write(path, list + std::string(limits::propertyListBytes - list.size(), ' '));
  EXPECT_EQ(error(), "");
  simulation.files().write(path, list + std::string(limits::propertyListBytes + 1 - list.size(), ' '));
  EXPECT_NE(error(), "");
}

}  // namespace
}  // namespace kelvane::test
