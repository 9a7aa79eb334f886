// SPDX-License-Identifier: Apache-2.0
// Preferences stores: what survives crashes, damage and failing disks.
#include "platform/linux/preferences/PreferencesStore.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <optional>
#include <set>
#include <variant>

#include "platform/Limits.h"
#include "tests/harness/ResultText.h"
#include "tests/linux/preferences/StoreTesting.h"
#include "tests/linux/testing/PrivateNamespace.h"

namespace kelvane {
namespace {

using test::dictionary;
using test::readFile;
using test::textOf;
using test::writeFile;
using test::writeTo;

const std::string directory = "/mnt/preferences";
const std::string slotA = directory + "/suite/slot-a";
const std::string slotB = directory + "/suite/slot-b";

/// Which flushes fail, the next so many; and how many there were.
int failingFlushes = 0;
int flushes = 0;
int flush(int descriptor) {
  ++flushes;
  if (failingFlushes > 0) {
    --failingFlushes;
    errno = EIO;
    return -1;
  }
  return fdatasync(descriptor);
}
constexpr DiskCalls calls = {.flush = flush};

class AStore : public testing::Test {
 protected:
  AStore() {
    std::filesystem::remove_all(directory);
    failingFlushes = 0;
  }

  std::unique_ptr<PreferencesStore> open() {
    auto store = PreferencesStore::open(directory, "suite", calls);
    return store ? *std::move(store) : nullptr;
  }
  /// The text of the one entry that these tests store; "(empty)" without.
  std::string storedText() {
    const auto store = open();
    if (!store) {
      return "(none)";
    }
    const auto found = store->contents().find("key");
    return found == store->contents().end() ? "(empty)" : *found->second.string();
  }
  /// Writes each of the texts in turn to a new store.
  void write(std::initializer_list<std::string> texts) {
    const auto store = open();
    ASSERT_TRUE(store);
    for (const std::string& text : texts) {
      ASSERT_EQ(textOf(writeTo(*store, dictionary(text))), "");
    }
  }
  static bool isAside(int number) {
    return std::filesystem::exists(directory + "/suite.damaged-" + std::to_string(number));
  }
  static std::size_t recordLength(const std::string& slot) {
    const std::string bytes = readFile(slot);
    const auto contents = decodeSlot({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
    const auto* record = std::get_if<SlotRecord>(&contents);
    return record != nullptr ? encodeSlotRecord(record->generation, record->contents).size() : 0;
  }
  static off_t firstHole(const std::string& path) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return lseek(file.get(), 0, SEEK_HOLE);
  }
};

TEST_F(AStore, IsMadeEmptyAndForItsOwnerOnly) {
  EXPECT_EQ(storedText(), "(empty)");
  for (const std::string& path : {directory, directory + "/suite"}) {
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700u) << path;
  }
}

TEST_F(AStore, HoldsWhatWasWrittenLast) {
  write({"one"});
  EXPECT_EQ(storedText(), "one");
  write({"two", "three", "four"});
  EXPECT_EQ(storedText(), "four");
}

TEST_F(AStore, HasItsRoomInWrittenBlocksFromTheStart) {
  open();
  for (const std::string& slot : {slotA, slotB}) {
    EXPECT_GE(std::filesystem::file_size(slot), limits::preferencesRoom);
    EXPECT_GE(firstHole(slot), static_cast<off_t>(limits::preferencesRoom));
  }
}

TEST_F(AStore, HasTheRoomItIsAskedForInBothSlots) {
  const auto store = open();
  EXPECT_GE(store->room(), limits::preferencesRoom);
  constexpr std::size_t more = limits::preferencesRoom + 500'000;
  EXPECT_LT(store->room(), more);
  EXPECT_EQ(textOf(store->makeRoom(more)), "");
  EXPECT_GE(store->room(), more);
  EXPECT_GE(firstHole(slotA), static_cast<off_t>(more));
  EXPECT_GE(firstHole(slotB), static_cast<off_t>(more));
  EXPECT_EQ(storedText(), "(none)") << "it is still open";
}

TEST_F(AStore, KeepsWhatItHoldsWhenItGetsMoreRoom) {
  write({"older", "newer"});
  {
    const auto store = open();
    ASSERT_EQ(textOf(store->makeRoom(2 * limits::preferencesRoom)), "");
  }
  EXPECT_EQ(storedText(), "newer");
  writeFile(slotA, "damage");
  EXPECT_EQ(storedText(), "older");
}

TEST_F(AStore, SaysWhenTheRoomCannotBeFlushed) {
  const auto store = open();
  failingFlushes = 1;
  EXPECT_EQ(textOf(store->makeRoom(2 * limits::preferencesRoom)), "flushing slot-a: Input/output error");
  flushes = 0;
  EXPECT_EQ(textOf(store->makeRoom(2 * limits::preferencesRoom)), "");
  EXPECT_EQ(flushes, 2) << "room that could not be flushed is none";
}

TEST_F(AStore, KeepsItsRecordWhenTheRoomBehindItCannotBeFlushed) {
  write({"older", "newer"});
  {
    const auto store = open();
    failingFlushes = 1;
    EXPECT_NE(textOf(store->makeRoom(2 * limits::preferencesRoom)), "");
    EXPECT_EQ(textOf(store->makeRoom(3 * limits::preferencesRoom)), "");
  }
  EXPECT_EQ(storedText(), "newer");
}

TEST_F(AStore, RefusesMoreThanTheLimit) {
  write({"kept"});
  const auto store = open();
  const std::string most(limits::preferencesBytes - 100, 'x');
  EXPECT_NE(textOf(writeTo(*store, dictionary(std::string(limits::preferencesBytes, 'x')))), "");
  EXPECT_EQ(textOf(writeTo(*store, dictionary(most))), "");
}

TEST_F(AStore, ReadsTheLargestContentsBack) {
  const std::string most(limits::preferencesBytes - 100, 'x');
  write({most});
  EXPECT_EQ(storedText(), most);
}

TEST_F(AStore, RefusesWhatIsNoPropertyList) {
  const auto store = open();
  EXPECT_NE(textOf(writeTo(*store, {{"key", Value::Array{Value()}}})), "");
}

TEST_F(AStore, GoesBackOneWriteWhenTheLastIsTruncatedAnywhere) {
  write({"older", "newer"});  // The empty first record was in slot a, so "newer" is as well.
  const std::string image = readFile(slotA);
  const std::size_t length = recordLength(slotA);
  ASSERT_GT(length, 0u);
  for (std::size_t kept = 0; kept <= length; ++kept) {
    writeFile(slotA, image.substr(0, kept));
    ASSERT_EQ(storedText(), kept < length ? "older" : "newer") << kept;
  }
  EXPECT_FALSE(isAside(1));
}

TEST_F(AStore, SaysThatItGoesBackOneWrite) {
  write({"older", "newer"});
  const std::string image = readFile(slotA);
  testing::internal::CaptureStderr();
  EXPECT_EQ(storedText(), "newer");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  writeFile(slotA, image.substr(0, recordLength(slotA) - 1));
  testing::internal::CaptureStderr();
  EXPECT_EQ(storedText(), "older");
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "slot-a holds no whole record, as after a write that was cut off; slot-b is used"),
            std::string::npos);
}

TEST_F(AStore, SaysNothingOfASlotThatWasNeverWritten) {
  open();
  testing::internal::CaptureStderr();
  EXPECT_EQ(storedText(), "(empty)");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(AStore, GoesBackOneWriteWhenAnyByteOfTheLastIsChanged) {
  write({"older", "newer"});
  const std::string image = readFile(slotA);
  const std::size_t length = recordLength(slotA);
  for (std::size_t position = 0; position < length; ++position) {
    for (const char change : {'\x01', '\x80', '\xff'}) {
      std::string damaged = image;
      damaged[position] = static_cast<char>(damaged[position] ^ change);
      writeFile(slotA, damaged);
      ASSERT_EQ(storedText(), "older") << position;
    }
  }
  writeFile(slotA, image.substr(0, length) + std::string(image.size() - length, 'z'));
  EXPECT_EQ(storedText(), "newer") << "what follows the record is of no account";
}

TEST_F(AStore, IsFoundAfterACrashAtAnyPointOfAWrite) {
  write({"first", "second"});
  const std::string before = readFile(slotB);
  write({"third and longer"});
  const std::string after = readFile(slotB);
  ASSERT_NE(before, after) << "the write went to the other slot";
  const std::size_t length = recordLength(slotB);
  // The disk may write the record's blocks in any order, its end first.
  for (std::size_t done = 0; done <= length; ++done) {
    for (const std::string& image :
         {after.substr(0, done) + before.substr(done), before.substr(0, done) + after.substr(done)}) {
      writeFile(slotB, image);
      const bool isWhole = image.compare(0, length, after, 0, length) == 0;
      ASSERT_EQ(storedText(), isWhole ? "third and longer" : "second") << done;
    }
  }
  EXPECT_FALSE(isAside(1));
}

TEST_F(AStore, ThatIsDamagedIsKeptAsideLoggedAndReplaced) {
  write({"older", "newer"});
  const std::string damaged = "x" + readFile(slotA).substr(1);
  writeFile(slotA, damaged);
  std::filesystem::resize_file(slotB, 10);
  testing::internal::CaptureStderr();
  EXPECT_EQ(storedText(), "(empty)");
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "The preferences /mnt/preferences/suite are damaged; kept as suite.damaged-1"),
            std::string::npos);
  EXPECT_EQ(readFile(directory + "/suite.damaged-1/slot-a"), damaged);
  write({"again"});
  EXPECT_EQ(storedText(), "again");
}

TEST_F(AStore, IsDamagedWhenItIsNoDirectoryOfFiles) {
  std::filesystem::create_directories(directory);
  writeFile(directory + "/suite", "a file");
  EXPECT_EQ(storedText(), "(empty)");
  EXPECT_TRUE(isAside(1));
  std::filesystem::remove(slotA);
  ASSERT_EQ(mkfifo(slotA.c_str(), 0600), 0);
  EXPECT_EQ(storedText(), "(empty)");
  EXPECT_TRUE(isAside(2));
  std::filesystem::remove(slotB);
  std::filesystem::create_symlink("/etc/passwd", slotB);
  EXPECT_EQ(storedText(), "(empty)");
  EXPECT_TRUE(isAside(3));
}

TEST_F(AStore, IsKeptAsideALimitedNumberOfTimes) {
  for (int count = 0; count < limits::damagedPreferences + 2; ++count) {
    open();
    writeFile(slotA, "damage " + std::to_string(count));
    EXPECT_EQ(storedText(), "(empty)");
  }
  EXPECT_TRUE(isAside(limits::damagedPreferences));
  EXPECT_FALSE(isAside(limits::damagedPreferences + 1));
  EXPECT_EQ(readFile(directory + "/suite.damaged-1/slot-a"), "damage 0") << "the first damage tells most";
  EXPECT_EQ(readFile(directory + "/suite.damaged-8/slot-a"),
            "damage " + std::to_string(limits::damagedPreferences + 1));
}

TEST_F(AStore, MakesALostSlotAnew) {
  write({"older", "newer"});
  std::filesystem::remove(slotB);
  EXPECT_EQ(storedText(), "newer");
  write({"newest"});
  EXPECT_GE(firstHole(slotB), static_cast<off_t>(limits::preferencesRoom));
  EXPECT_EQ(storedText(), "newest");
}

TEST_F(AStore, FillsHolesBeforeItReliesOnThem) {
  write({"older", "newer"});
  for (const std::string& slot : {slotA, slotB}) {  // as a copying program leaves them
    std::filesystem::resize_file(slot, recordLength(slot));
    std::filesystem::resize_file(slot, limits::preferencesRoom);
    ASSERT_LT(firstHole(slot), static_cast<off_t>(limits::preferencesRoom));
  }
  write({"one", "two"});
  EXPECT_GE(firstHole(slotA), static_cast<off_t>(limits::preferencesRoom));
  EXPECT_GE(firstHole(slotB), static_cast<off_t>(limits::preferencesRoom));
}

TEST_F(AStore, WritesAgainToTheSameSlotAfterAFailedFlush) {
  auto store = open();
  ASSERT_EQ(textOf(writeTo(*store, dictionary("acknowledged"))), "");
  const std::string good = readFile(slotB);
  failingFlushes = 1;
  EXPECT_EQ(textOf(writeTo(*store, dictionary("lost"))), "flushing slot-a: Input/output error");
  // What the flush did not write may be gone from memory too, although the next flush succeeds.
  writeFile(slotA, std::string(limits::preferencesRoom, '\0'));
  EXPECT_EQ(readFile(slotB), good) << "the good record is left alone";
  EXPECT_EQ(textOf(writeTo(*store, dictionary("written again"))), "");
  EXPECT_EQ(readFile(slotB), good);
  store.reset();
  EXPECT_EQ(storedText(), "written again");
}

TEST_F(AStore, ChangesNeitherSlotWhileTheNewestCannotBeFlushed) {
  write({"older", "newer"});
  const std::string newer = readFile(slotA);
  const std::string older = readFile(slotB);
  failingFlushes = 2;
  const auto store = open();
  ASSERT_TRUE(store);
  EXPECT_EQ(textOf(writeTo(*store, dictionary("refused"))), "flushing slot-a: Input/output error");
  EXPECT_EQ(readFile(slotA), newer) << "it may be the newest on disk";
  EXPECT_EQ(readFile(slotB), older) << "it may be the only one on disk";
  EXPECT_EQ(textOf(writeTo(*store, dictionary("newest"))), "");
  EXPECT_EQ(readFile(slotA), newer);
}

/// The bytes written to each file, and the order of writes and flushes.
std::string writesAndFlushes;
ssize_t notedWrite(int file, const void* bytes, std::size_t count, off_t offset) {
  writesAndFlushes += 'w';
  return pwrite(file, bytes, count, offset);
}
int notedFlush(int file) {
  writesAndFlushes += 'f';
  return fdatasync(file);
}

TEST_F(AStore, WritesWhatItFindsAgainBeforeItReliesOnIt) {
  write({"older", "newer"});
  const std::string newer = readFile(slotA);
  writesAndFlushes.clear();
  // An earlier flush of it may have failed, after which the kernel takes it for written.
  ASSERT_TRUE(PreferencesStore::open(directory, "suite", {.write = notedWrite, .flush = notedFlush}));
  EXPECT_EQ(writesAndFlushes, "wf");
  EXPECT_EQ(readFile(slotA), newer);
}

TEST_F(AStore, HandsOverIntoTheSlotWithoutTheNewestFlushedWriteHoweverOften) {
  write({"older", "newer"});
  const std::string newer = readFile(slotA);
  auto store = open();
  for (const char* text : {"one", "two", "three"}) {
    ASSERT_EQ(textOf(store->handOver(dictionary(text))), "");
    EXPECT_EQ(readFile(slotA), newer);
    EXPECT_TRUE(store->isHandedOver());
  }
  store.reset();
  EXPECT_EQ(storedText(), "three") << "it outlives its process";
}

TEST_F(AStore, FlushesWhatItHandedOver) {
  auto store = open();
  ASSERT_EQ(textOf(store->handOver(dictionary("handed over"))), "");
  const std::string handedOver = readFile(slotB);
  ASSERT_EQ(textOf(store->flush()), "");
  EXPECT_FALSE(store->isHandedOver());
  ASSERT_EQ(textOf(store->handOver(dictionary("later"))), "");
  EXPECT_EQ(readFile(slotB), handedOver);
}

TEST_F(AStore, DoesNotFlushTwiceWhatAFlushHasFailedFor) {
  const auto store = open();
  ASSERT_EQ(textOf(store->handOver(dictionary("lost"))), "");
  failingFlushes = 1;
  EXPECT_NE(textOf(store->flush()), "");
  EXPECT_NE(textOf(store->flush()), "") << "it would succeed without having written anything";
  ASSERT_EQ(textOf(store->handOver(dictionary("again"))), "");
  failingFlushes = 1;
  EXPECT_NE(textOf(store->makeRoom(2 * limits::preferencesRoom)), "");
  EXPECT_FALSE(store->isHandedOver()) << "that flush may have been the one that failed for it";
}

/// Fails for the slot of this name.
std::string unreadableSlot;
ssize_t failingRead(int file, void* bytes, std::size_t count, off_t offset) {
  const std::string path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file));
  if (path.ends_with(unreadableSlot)) {
    errno = EIO;
    return -1;
  }
  return pread(file, bytes, count, offset);
}

TEST_F(AStore, ThatCannotBeReadIsLeftAloneToTheLastByte) {
  write({"older", "newer"});
  const std::string newer = readFile(slotA);
  const std::string older = readFile(slotB);
  for (const char* slot : {"slot-a", "slot-b"}) {
    for (const bool isOtherMissing : {false, true}) {
      unreadableSlot = slot;
      const std::string other = unreadableSlot == "slot-a" ? slotB : slotA;
      if (isOtherMissing) {
        std::filesystem::remove(other);
      }
      const auto store = PreferencesStore::open(directory, "suite", {.read = failingRead});
      EXPECT_EQ(textOf(store), std::string("reading ") + slot + ": Input/output error");
      EXPECT_EQ(std::filesystem::exists(other), !isOtherMissing);
      EXPECT_FALSE(isAside(1));
      writeFile(other, other == slotA ? newer : older);
      EXPECT_EQ(readFile(slotA), newer);
      EXPECT_EQ(readFile(slotB), older);
    }
  }
  EXPECT_EQ(storedText(), "newer") << "when the disk is well again it is there";
}

TEST_F(AStore, ThatIsHalfUnreadableAndHalfNoFileIsNotTakenForDamaged) {
  write({"older", "newer"});
  std::filesystem::remove(slotB);
  std::filesystem::create_directory(slotB);
  unreadableSlot = "slot-a";
  EXPECT_FALSE(PreferencesStore::open(directory, "suite", {.read = failingRead}));
  EXPECT_FALSE(isAside(1)) << "of the two, that the disk does not answer says more";
  EXPECT_EQ(storedText(), "(empty)");
  EXPECT_TRUE(isAside(1));
}

TEST_F(AStore, ThatIsDamagedAndAMountPointIsNotTakenForAnotherDaemons) {
  test::mountTmpfs(directory + "/suite", "size=1m");
  const auto store = PreferencesStore::open(directory, "suite", calls);
  EXPECT_EQ(textOf(store), "renaming " + directory + "/suite: it is a mount point");
  EXPECT_NE(store.failure().number, EBUSY);
  ASSERT_EQ(umount2((directory + "/suite").c_str(), MNT_DETACH), 0);
}

/// A record in the format of a later version.
std::string ofALaterFormat(const std::string& slot) {
  const std::string bytes = readFile(slot);
  const auto contents = decodeSlot({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
  Data record = encodeSlotRecord(std::get<SlotRecord>(contents).generation, std::get<SlotRecord>(contents).contents, 2);
  return std::string(record.begin(), record.end()) + bytes.substr(record.size());
}

TEST_F(AStore, OfALaterVersionIsLeftAlone) {
  write({"older", "newer"});
  const std::string newer = readFile(slotA);
  const std::string older = readFile(slotB);
  for (const std::string& slot : {slotA, slotB}) {
    writeFile(slotA, newer);
    writeFile(slotB, older);
    const std::string later = ofALaterFormat(slot);
    writeFile(slot, later);
    const auto store = PreferencesStore::open(directory, "suite", calls);
    EXPECT_NE(textOf(store).find("has format 2, and this version knows 1"), std::string::npos) << textOf(store);
    EXPECT_EQ(readFile(slot), later);
    EXPECT_EQ(readFile(slot == slotA ? slotB : slotA), slot == slotA ? older : newer);
    EXPECT_FALSE(isAside(1));
  }
}

TEST_F(AStore, OfALaterVersionIsLeftAloneHoweverLongItsRecordsAre) {
  write({"older", "newer"});
  std::string later = readFile(slotA);
  later[7] = '2';
  for (std::size_t place = 16; place < 24; ++place) {
    later[place] = place == 20 ? '\1' : '\0';  // 4 GiB
  }
  writeFile(slotA, later);
  const auto store = PreferencesStore::open(directory, "suite", calls);
  EXPECT_EQ(textOf(store), "slot-a has format 2, and this version knows 1")
      << "right or wrong, its checksum is not read";
  EXPECT_EQ(readFile(slotA), later);
  EXPECT_FALSE(isAside(1));
}

TEST_F(AStore, IsTornWhereOnlyTheFormatsDigitIsAnother) {
  write({"older", "newer"});
  std::string changed = readFile(slotA);
  changed[7] = '2';
  writeFile(slotA, changed);
  EXPECT_EQ(storedText(), "older") << "its checksum tells that no version has written it";
}

/// The directories that were flushed.
std::set<std::string> flushedDirectories;
int notedDirectoryFlush(int file) {
  flushedDirectories.insert(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file)));
  return fsync(file);
}

TEST_F(AStore, FlushesEveryDirectoryAboveANewStore) {
  const std::set<std::string> all = {"/mnt", "/mnt/deep", "/mnt/deep/er", "/mnt/deep/er/preferences",
                                     "/mnt/deep/er/preferences/.suite.new"};
  for (const char* made : {"/mnt/deep/er/preferences", "/mnt/deep", ""}) {
    std::filesystem::remove_all("/mnt/deep");
    if (*made != '\0') {  // by a process that was killed before it could flush it
      std::filesystem::create_directories(made);
    }
    flushedDirectories.clear();
    ASSERT_TRUE(PreferencesStore::open("/mnt/deep/er/preferences", "suite", {.flushDirectory = notedDirectoryFlush}));
    EXPECT_EQ(flushedDirectories, all) << made;
  }
}

TEST_F(AStore, FlushesOnlyItsOwnDirectoryForASlotThatWasLost) {
  std::filesystem::remove_all("/mnt/deep");
  ASSERT_TRUE(PreferencesStore::open("/mnt/deep/er/preferences", "suite"));
  flushedDirectories.clear();
  std::filesystem::remove("/mnt/deep/er/preferences/suite/slot-b");
  ASSERT_TRUE(PreferencesStore::open("/mnt/deep/er/preferences", "suite", {.flushDirectory = notedDirectoryFlush}));
  EXPECT_EQ(flushedDirectories, std::set<std::string>{"/mnt/deep/er/preferences/suite"});
}

TEST_F(AStore, CannotBeMadeWhereItsDirectoryCannot) {
  writeFile("/mnt/file", "");
  EXPECT_EQ(textOf(PreferencesStore::open("/mnt/file/preferences", "suite", calls)),
            "making /mnt/file/preferences: Not a directory");
}

}  // namespace
}  // namespace kelvane
