// SPDX-License-Identifier: Apache-2.0
// What every test of hostile peers begins and ends with.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/hostile/DaemonProcess.h"
#include "tests/hostile/Service.h"

namespace kelvane::test {

inline constexpr std::uint64_t mebibyte = 1024 * 1024;

/// The sanitizers that this test and its daemon were built with, if any.
inline constexpr std::string_view sanitizers = KELVANE_SANITIZERS;
/// How much of a load a test puts on the daemon: all of it, or a part where sanitizers make everything slow.
constexpr int scaled(int count) {
  return sanitizers.empty() ? count : count / 5;
}

/// How many descriptors the daemon may open for itself while a test counts those of its peers.
inline constexpr std::size_t ownDescriptors = 16;

/// Whether the sandbox has other users.
[[nodiscard]] bool hasOtherUsers();
/// Of the test's volume.
[[nodiscard]] std::uint64_t availableBytes();
void writeFile(const std::string& path, std::string_view contents);

/// One daemon and one volume, for each test anew, in a sandbox whose root may do everything. After the test's own steps
/// the daemon must still be there, another client's purge succeed, and SIGTERM end it with status 0.
class HostileTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  void startDaemon(const Circumstances& circumstances = {}) { daemon_.start(circumstances); }
  /// To whatever a daemon that is started after it has to offer.
  static void entitleThisUser();
  /// Frees bytes of the volume by a service and for a client that have done nothing wrong.
  void purgeForAnotherClient() const;
  /// A service that cannot be called keeps its share of a purge, and a pass may end while another is about to be asked
  /// again. So beside such services a client has to ask for the rest.
  void expectServicesThatCannotBeCalled() { requests_ = 100; }
  /// Polls until the daemon has written this to its log.
  [[nodiscard]] bool eventuallyLogs(const std::string& text) const;

  DaemonProcess daemon_;

 private:
  int requests_ = 1;
};

/// With one service that has checked in and behaves from then on as the test says.
class HostileServiceTest : public HostileTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  Service& service() { return *service_; }
  /// The request that the service gets for a purge of a mebibyte, whose result the client is to take.
  Message nextPurge(Client& client, std::vector<Entry> more = {});
  /// In the place of that service puts one in a process of its own, which SIGKILL ends when the daemon asks it for
  /// this.
  void expectDeathBySignalIn(const std::string& member, const std::function<void()>& ask);

 private:
  std::optional<Service> service_;
};

}  // namespace kelvane::test
