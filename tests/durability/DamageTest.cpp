// SPDX-License-Identifier: Apache-2.0
// A store whose files were damaged while the daemon was away.
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>
#include <variant>
#include <vector>

#include "platform/PropertyList.h"
#include "platform/linux/preferences/PreferencesSlot.h"
#include "protocols/Keys.h"
#include "tests/durability/DurabilityTest.h"

namespace kelvane {
namespace {

using test::StateClient;
using test::writeFile;

/// Every byte of a small store counts; under sanitizers some do.
constexpr std::size_t step = test::sanitizers.empty() ? 1 : 23;

std::string readFile(const std::string& path) {
  std::ostringstream contents;
  contents << std::ifstream(path, std::ios::binary).rdbuf();
  return contents.str();
}

/// One of a store's two files as it was when the daemon was killed.
struct Slot {
  explicit Slot(const char* name) : path(std::string(test::storeDirectory) + "/" + name), image(readFile(path)) {
    const auto contents = decodeSlot({reinterpret_cast<const std::uint8_t*>(image.data()), image.size()});
    const auto* record = std::get_if<SlotRecord>(&contents);
    EXPECT_NE(record, nullptr);
    generation = record != nullptr ? record->generation : 0;
    length = record != nullptr ? encodeSlotRecord(record->generation, record->contents).size() : 0;
  }
  void restore() const { writeFile(path, image); }
  void truncate(std::size_t kept) const { writeFile(path, image.substr(0, kept)); }
  void flip(std::size_t position) const {
    std::string damaged = image;
    damaged[position] = static_cast<char>(~damaged[position]);
    writeFile(path, damaged);
  }

  std::string path;
  std::string image;
  std::uint64_t generation = 0;
  /// Of the record at its start.
  std::size_t length = 0;
};

/// That was acknowledged "older", then "newer", under one key.
class ADamagedStore : public test::DurabilityTest {
 protected:
  void SetUp() override {
    DurabilityTest::SetUp();
    startDaemon();
    EXPECT_EQ(StateClient().set("key", "older").error, "");
    EXPECT_EQ(StateClient().set("key", "newer").error, "");
    kill();
    slots_ = {Slot("slot-a"), Slot("slot-b")};
    if (slots_[0].generation < slots_[1].generation) {
      std::swap(slots_[0], slots_[1]);
    }
    ASSERT_GT(older().length, 0U);
  }
  void TearDown() override {
    startDaemon();
    DurabilityTest::TearDown();
  }

  const Slot& newer() const { return slots_[0]; }
  const Slot& older() const { return slots_[1]; }

  /// What a daemon makes of the files, and says of them.
  void expect(const Value& value, const std::string& words) {
    const std::size_t logged = daemon_.log().size();
    startDaemon();
    EXPECT_EQ(StateClient().get("key"), value);
    EXPECT_NE(daemon_.log().find(words, logged), std::string::npos) << daemon_.log().substr(logged);
    kill();
  }
  void restore() {
    newer().restore();
    older().restore();
  }
  static std::string aside() { return std::string(test::storeDirectory) + ".damaged-1"; }

  static constexpr char isCutOff[] = "holds no whole record, as after a write that was cut off";
  static constexpr char isKept[] = "are damaged; kept as com.tessaly.kelvane.damaged-1";

 private:
  /// The newer one first.
  std::vector<Slot> slots_;
};

TEST_F(ADamagedStore, GoesBackOneChangeWhenTheLastIsTruncatedAnywhere) {
  for (std::size_t kept = 0; kept < newer().length && !HasFailure(); kept += step) {
    SCOPED_TRACE(kept);
    restore();
    newer().truncate(kept);
    expect("older", isCutOff);
  }
  EXPECT_FALSE(std::filesystem::exists(aside()));
}

TEST_F(ADamagedStore, GoesBackOneChangeWhenAnyByteOfTheLastIsChanged) {
  for (std::size_t position = 0; position < newer().length && !HasFailure(); position += step) {
    SCOPED_TRACE(position);
    restore();
    newer().flip(position);
    expect("older", isCutOff);
  }
  EXPECT_FALSE(std::filesystem::exists(aside()));
}

TEST_F(ADamagedStore, HasTheLastChangeHoweverTheOneBeforeIsDamaged) {
  for (std::size_t position = 0; position < older().length && !HasFailure(); position += step) {
    SCOPED_TRACE(position);
    restore();
    position % 2 == 0 ? older().flip(position) : older().truncate(position);
    expect("newer", isCutOff);
  }
  EXPECT_FALSE(std::filesystem::exists(aside()));
}

TEST_F(ADamagedStore, IsKeptAsideWhenNothingOfItIsWhole) {
  for (std::size_t position = 0; position < older().length && !HasFailure(); position += step) {
    SCOPED_TRACE(position);
    std::filesystem::remove_all(aside());
    newer().flip(position % newer().length);
    older().truncate(position);
    const std::string damaged = readFile(newer().path);
    expect(Value(), isKept);
    EXPECT_EQ(readFile(aside() + "/" + std::filesystem::path(newer().path).filename().string()), damaged);
    // What is acknowledged from now on is safe again.
    startDaemon();
    EXPECT_EQ(StateClient().set("key", "newest").error, "");
    kill();
    startDaemon();
    EXPECT_EQ(StateClient().get("key"), Value("newest"));
    kill();
  }
}

TEST_F(ADamagedStore, OfWhichAFileIsMissingHasTheOther) {
  std::filesystem::remove(newer().path);
  startDaemon();
  EXPECT_EQ(StateClient().get("key"), Value("older"));
  kill();
  restore();
  std::filesystem::remove(older().path);
  startDaemon();
  EXPECT_EQ(StateClient().get("key"), Value("newer"));
  kill();
}

class AnUnflushedStore : public ADamagedStore {};

TEST_F(AnUnflushedStore, IsFlushedBeforeAnybodyIsToldWhatIsInIt) {
  // As a daemon leaves it that is killed between writing and flushing.
  const auto contents =
      propertyList::writeBinary(Value::Dictionary{{keys::userDefaults, Value::Dictionary{{"key", "newest"}}}});
  ASSERT_TRUE(std::holds_alternative<Data>(contents));
  const Data record = encodeSlotRecord(newer().generation + 1, std::get<Data>(contents));
  std::fstream(older().path, std::ios::binary | std::ios::in | std::ios::out)
      .write(reinterpret_cast<const char*>(record.data()), static_cast<std::streamsize>(record.size()));
  startDaemon();
  EXPECT_EQ(StateClient().get("key"), Value("newest"));
  losePower();
  startDaemon();
  EXPECT_EQ(StateClient().get("key"), Value("newest"));
  kill();
}

}  // namespace
}  // namespace kelvane
