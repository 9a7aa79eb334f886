// SPDX-License-Identifier: Apache-2.0
// What every test of the state's durability begins and ends with.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <string>

#include "tests/durability/RecordWriter.h"
#include "tests/durability/Seed.h"
#include "tests/durability/StateWriter.h"
#include "tests/hostile/HostileTest.h"
#include "tests/linux/testing/LoopDisk.h"

namespace kelvane::test {

inline constexpr char stateDirectory[] = "/var/lib/kelvane";
inline constexpr char storeDirectory[] = "/var/lib/kelvane/preferences/com.tessaly.kelvane";

/// A daemon with its state on a disk of its own: an ext4 where the sandbox has loop devices, else a tmpfs.
class DurabilityTest : public HostileTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// Kills the daemon.
  void kill();
  /// Whatever the daemon has not flushed is lost, and then it dies. A tmpfs loses nothing.
  void losePower();
  /// One of both.
  void killOrLosePower() { chance_.oneIn(2) ? kill() : losePower(); }
  /// Starts the daemon and goes on while it starts, at a moment that chance decides.
  void startInVain();
  /// Once and for all: after a loss of power there might be half of them again.
  static void removeStores();
  /// Takes every block of the disk that is left.
  static void fillStateDisk() { fillDisk(stateDirectory, "filling"); }

  /// The daemon lives so often, under the load of clients that change its state, and comes to this end each time, at a
  /// moment that chance decides; now and then before it has begun to serve. In every life it must have what was
  /// acknowledged in those before. Values have at most so many bytes.
  void liveAndDie(int lives, std::size_t mostBytes, const std::function<void()>& end);

 private:
  void liveOnce(const std::function<void()>& end);
  void expectWhatWasAcknowledged();

  /// Whether the state is on an ext4.
  bool hasDisk_ = false;
  Random chance_{0};
  Progress progress_;
  std::deque<StateWriter> writers_;
  RecordWriter record_;
};

}  // namespace kelvane::test
