// SPDX-License-Identifier: Apache-2.0
// Service descriptions that are none.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "platform/Limits.h"
#include "platform/PropertyList.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"

namespace kelvane {
namespace {

using test::descriptions;
using test::writeFile;

std::string repeated(std::string_view text, std::size_t times) {
  std::string all;
  for (std::size_t time = 0; time < times; ++time) {
    all += text;
  }
  return all;
}

std::string pathOf(const std::string& name) {
  return descriptions + name;
}

void describe(const std::string& name, std::string_view contents) {
  writeFile(pathOf(name), contents);
}

/// In the one format that can hold any identifier.
void describeService(const std::string& name, const std::string& identifier) {
  const auto list = propertyList::writeBinary(Value::Dictionary{{keys::id, identifier}});
  const Data& bytes = std::get<Data>(list);
  describe(name, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

/// Files beside one that is as it should be, which comes last in the order of names.
class Descriptions : public test::HostileTest {
 protected:
  static constexpr char goodIdentifier[] = "com.example.described";

  void start() {
    describe("zz-good", std::string("{ KELVANE_ID = \"") + goodIdentifier + "\"; KELVANE_SERVICES = (); }");
    startDaemon();
    EXPECT_TRUE(isDescribed(goodIdentifier));
  }

  /// The check-in of a described service is answered at once, with nothing.
  static bool isDescribed(const std::string& identifier) {
    test::Client client;
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const FileDescriptor ours(ends[0]);
    const FileDescriptor theirs(ends[1]);
    EXPECT_TRUE(client.send("clientCheckin", test::checkin(identifier, theirs.get(), test::purging())));
    const test::Message answer = client.nextAnswer();
    return answer != nullptr && sd_bus_message_has_signature(answer.get(), "v") > 0 &&
           test::nextValue(answer).isAbsent();
  }
};

TEST_F(Descriptions, ThatAreNoPropertyListsArePassedOver) {
  describe("empty", "");
  describe("text", "This is no property list.");
  describe("bytes", std::string("\x7f\x45\x4c\x46\x02\x01\x01\0\0\xff\xfe", 11));
  describe("cut.xml", "<?xml version=\"1.0\"?><plist><dict><key>KELVANE_ID</key><string>com.exam");
  describe("cut.binary", "bplist00\xd1\x01\x02");
  describe("cut.text", "{ KELVANE_ID = \"com.exam");
  describe(
      "entities.xml",
      "<?xml version=\"1.0\"?><!DOCTYPE plist [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;\">"
      "<!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;\">]><plist><dict><key>KELVANE_ID</key><string>&c;</string></dict></plist>");
  describe("wrong-offsets.binary", "bplist00" + std::string(32, '\xff'));
  start();
  EXPECT_TRUE(eventuallyLogs("readTreeFromData failed"));
}

TEST_F(Descriptions, LongerThanAMebibyteArePassedOver) {
  const std::string list = "{ KELVANE_ID = \"com.example.long\"; }";
  describe("long", list + std::string(limits::propertyListBytes + 1 - list.size(), ' '));
  describe("endless", "");
  ASSERT_EQ(truncate(pathOf("endless").c_str(), off_t{1} << 40), 0);
  const std::string fits = "{ KELVANE_ID = \"com.example.fits\"; KELVANE_SERVICES = (); }";
  describe("just-fits", fits + std::string(limits::propertyListBytes - fits.size(), ' '));
  start();
  EXPECT_TRUE(eventuallyLogs("Larger than 1048576 bytes"));
  EXPECT_TRUE(isDescribed("com.example.fits"));
}

TEST_F(Descriptions, NestedDeeplyArePassedOver) {
  const std::size_t depth = 50'000;
  describe("arrays.xml", "<plist>" + repeated("<array>", depth) + repeated("</array>", depth) + "</plist>");
  describe("open.xml", "<plist>" + repeated("<array>", depth));
  describe("arrays.text", repeated("(", depth) + repeated(")", depth));
  describe("dictionaries.text", repeated("{a=", depth) + "b" + repeated(";}", depth));
  describe("open.text", repeated("(", depth));
  // An array that holds itself.
  const std::string itself = "bplist00\xa1" + std::string(1, '\0');
  describe("circle.binary", itself + "\x08" + std::string(6, '\0') + "\x01\x01" + std::string(7, '\0') + "\x01" +
                                std::string(8, '\0') + std::string(7, '\0') + "\x0a");
  start();
}

TEST_F(Descriptions, ThatAreNoDictionariesArePassedOver) {
  describe("array", "(KELVANE_ID, \"com.example.array\")");
  describe("string", "\"com.example.string\"");
  describe("number.xml", "<plist><integer>7</integer></plist>");
  describe("date.xml", "<plist><date>2001-01-01T00:00:00Z</date></plist>");
  describe("without-identifier", "{ KELVANE_SERVICES = (PURGE); }");
  describe("number-for-identifier.xml", "<plist><dict><key>KELVANE_ID</key><integer>7</integer></dict></plist>");
  start();
}

TEST_F(Descriptions, WithValuesOfOtherTypesAreTakenForWhatTheyAre) {
  describe("services", "{ KELVANE_ID = \"com.example.services\"; KELVANE_SERVICES = PURGE; }");
  describe("notifications", "{ KELVANE_ID = \"com.example.notifications\"; KELVANE_NOTIFICATIONS = { a = (b); }; }");
  describe("members", "{ KELVANE_ID = \"com.example.members\"; KELVANE_NOTIFICATIONS = ((a), { b = c; }, d); }");
  expectServicesThatCannotBeCalled();
  start();
  for (const char* name : {"services", "notifications", "members"}) {
    EXPECT_TRUE(isDescribed(std::string("com.example.") + name));
  }
}

TEST_F(Descriptions, ThatCannotBeReadArePassedOver) {
  std::filesystem::create_directories(descriptions);
  std::filesystem::create_symlink("nowhere", pathOf("dangling"));
  // A regular file whose reading fails, even for root.
  std::filesystem::create_symlink("/proc/self/mem", pathOf("failing"));
  std::filesystem::create_symlink("/proc/self/task", pathOf("directory"));
  describe(std::string(NAME_MAX, 'n'), "no property list");
  describe("line\nbreak\xff\xc0", "no property list");
  start();
  EXPECT_TRUE(eventuallyLogs("failing: Input/output error"));
  EXPECT_TRUE(eventuallyLogs("dangling: A symbolic link leads nowhere"));
  EXPECT_TRUE(eventuallyLogs("directory: Is a directory"));
}

TEST_F(Descriptions, ThatLeadInCirclesArePassedOver) {
  std::filesystem::create_directories(pathOf("inner"));
  std::filesystem::create_symlink("itself", pathOf("itself"));
  std::filesystem::create_symlink("there", pathOf("back"));
  std::filesystem::create_symlink("back", pathOf("there"));
  std::filesystem::create_symlink("..", pathOf("inner/up"));
  std::filesystem::create_symlink("/", pathOf("everything"));
  start();
  EXPECT_TRUE(eventuallyLogs("itself: Too many levels of symbolic links"));
}

TEST_F(Descriptions, InDirectoriesWithinDirectoriesAreLookedForOnlySoDeep) {
  std::string directory;
  for (int depth = 0; depth < 4 * limits::directoryDepth; ++depth) {
    directory += "d/";
  }
  describe(directory + "deep", "no property list");
  start();
  const std::string log = daemon_.log();
  std::size_t directories = 0;
  for (std::size_t at = 0; (at = log.find("Is a directory", at)) != std::string::npos; ++at) {
    ++directories;
  }
  EXPECT_EQ(directories, static_cast<std::size_t>(limits::directoryDepth)) << log;
}

TEST_F(Descriptions, ThatAreNoRegularFilesAreNotOpened) {
  std::filesystem::create_directories(descriptions);
  ASSERT_EQ(mkfifo(pathOf("fifo").c_str(), 0644), 0);
  std::filesystem::create_symlink("fifo", pathOf("to-fifo"));
  for (const char* device : {"zero", "full", "tty"}) {
    std::filesystem::create_symlink(std::string("/dev/") + device, pathOf(device));
  }
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  pathOf("socket").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  start();
  EXPECT_TRUE(eventuallyLogs("fifo: Not a regular file"));
}

TEST_F(Descriptions, MayHaveIdentifiersThatNoServiceCanBeCalledBy) {
  const std::vector<std::string> identifiers = {
      "",  "a/b",  "/",      std::string("a\0b", 3), std::string(1, '\0'), std::string(300, 'x'), ".hidden", "..",
      ".", "a\nb", "%s%n%@", "com.example.\u00e9"};
  for (std::size_t number = 0; number < identifiers.size(); ++number) {
    describeService("identifier-" + std::to_string(number), identifiers[number]);
  }
  expectServicesThatCannotBeCalled();
  start();
  for (const std::string& identifier : identifiers) {
    // What a message cannot carry cannot check in either.
    EXPECT_TRUE(identifier.find('\0') != std::string::npos || isDescribed(identifier)) << identifier;
  }
}

TEST_F(Descriptions, MayNameTheDaemonItself) {
  describeService("daemon", "com.tessaly.kelvane");
  expectServicesThatCannotBeCalled();
  start();
  // It asks itself, and answers that it is no service.
  EXPECT_TRUE(test::Client().purge(test::purgeOf(test::mebibyte)).isDictionary());
}

}  // namespace
}  // namespace kelvane
