// SPDX-License-Identifier: Apache-2.0
// What users can make the process hold, and how many requests are delivered at once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>

#include "platform/linux/ipc/DeliveryGate.h"
#include "platform/linux/ipc/Quota.h"
#include "tests/linux/ipc/IpcTesting.h"

namespace kelvane {
namespace {

namespace sample = test::sample;
using testing::ElementsAre;

TEST(AQuota, LimitsConnectionsOfAllUsersAndOfEach) {
  ipc::Quota quota({.connections = 5, .connectionsKeptForRoot = 0, .connectionsPerUser = 3});
  EXPECT_TRUE(quota.addConnection(1));
  EXPECT_TRUE(quota.addConnection(1));
  EXPECT_TRUE(quota.addConnection(1));
  EXPECT_FALSE(quota.addConnection(1));
  EXPECT_TRUE(quota.addConnection(2));
  EXPECT_TRUE(quota.addConnection(2));
  EXPECT_FALSE(quota.addConnection(2));
  EXPECT_FALSE(quota.addConnection(3));
  quota.removeConnection(1);
  EXPECT_TRUE(quota.addConnection(3));
}

TEST(AQuota, KeepsSomeConnectionsForTheSuperuser) {
  ipc::Quota quota({.connections = 2, .connectionsKeptForRoot = 1});
  EXPECT_TRUE(quota.addConnection(1));
  EXPECT_FALSE(quota.addConnection(2));
  EXPECT_TRUE(quota.addConnection(0));
  EXPECT_FALSE(quota.addConnection(0));
}

TEST(AQuota, LimitsTheBytesHeldForEachUser) {
  ipc::Quota quota({.heldBytesPerUser = 100, .unsentBytesPerUser = 50});
  EXPECT_TRUE(quota.hold(1, 60));
  EXPECT_EQ(quota.holdable(1), 40U);
  EXPECT_FALSE(quota.hold(1, 41));
  EXPECT_TRUE(quota.hold(1, 40));
  EXPECT_TRUE(quota.hold(2, 100));
  quota.release(1, 60);
  EXPECT_EQ(quota.holdable(1), 60U);
  EXPECT_TRUE(quota.addUnsent(1, 50));
  EXPECT_FALSE(quota.addUnsent(1, 1));
  quota.removeUnsent(1, 50);
  EXPECT_TRUE(quota.addUnsent(1, 1));
}

TEST(AQuota, LimitsConnectionsInTheMidstOfAMessage) {
  ipc::Quota quota({.partialMessagesPerUser = 1});
  EXPECT_TRUE(quota.addPartial(1));
  EXPECT_FALSE(quota.addPartial(1));
  EXPECT_TRUE(quota.addPartial(2));
  quota.removePartial(1);
  EXPECT_TRUE(quota.addPartial(1));
}

/// A connection of one user that wants requests delivered.
class Client final : public ipc::DeliveryGate::Waiter {
 public:
  Client(ipc::DeliveryGate& gate, uid_t user, std::vector<uid_t>* admittedUsers = nullptr)
      : gate_(gate), user_(user), admittedUsers_(admittedUsers) {}

  bool enter(const ipc::Operation& kind) { return gate_.enter(kind, user_, *this); }
  void leave(const ipc::Operation& kind) { gate_.leave(kind, user_); }
  void withdraw(const ipc::Operation& kind) { gate_.withdraw(kind, user_, *this); }
  int admissions() const { return admissions_; }

 private:
  void admitted() override {
    ++admissions_;
    if (admittedUsers_ != nullptr) {
      admittedUsers_->push_back(user_);
    }
  }

  ipc::DeliveryGate& gate_;
  const uid_t user_;
  std::vector<uid_t>* const admittedUsers_;
  int admissions_ = 0;
};

TEST(ADeliveryGate, LimitsEachKindOnItsOwn) {
  ipc::DeliveryGate gate(2, 2);
  Client client(gate, 1);
  Client waiting(gate, 2);
  EXPECT_TRUE(client.enter(sample::echo));
  EXPECT_TRUE(client.enter(sample::echo));
  EXPECT_FALSE(waiting.enter(sample::echo));
  EXPECT_TRUE(client.enter(sample::tell));
  EXPECT_EQ(waiting.admissions(), 0);
  client.leave(sample::tell);
  EXPECT_EQ(waiting.admissions(), 0);
  client.leave(sample::echo);
  EXPECT_EQ(waiting.admissions(), 1);
}

TEST(ADeliveryGate, LimitsEachUserOnItsOwn) {
  ipc::DeliveryGate gate(10, 1);
  Client first(gate, 1);
  Client second(gate, 1);
  Client other(gate, 2);
  EXPECT_TRUE(first.enter(sample::echo));
  EXPECT_FALSE(second.enter(sample::echo));
  EXPECT_TRUE(other.enter(sample::echo));
  other.leave(sample::echo);
  EXPECT_EQ(second.admissions(), 0);
  first.leave(sample::echo);
  EXPECT_EQ(second.admissions(), 1);
}

TEST(ADeliveryGate, LetsUsersTakeTurns) {
  ipc::DeliveryGate gate(1, 1);
  std::vector<uid_t> admitted;
  std::deque<Client> clients;
  for (const uid_t user : {1U, 1U, 1U, 2U, 2U, 3U}) {
    clients.emplace_back(gate, user, &admitted);
    const bool entered = clients.back().enter(sample::echo);
    EXPECT_EQ(entered, clients.size() == 1);
  }
  clients.front().leave(sample::echo);
  for (std::size_t left = 1; left < clients.size(); ++left) {
    gate.leave(sample::echo, admitted.back());
  }
  EXPECT_THAT(admitted, ElementsAre(2, 3, 1, 2, 1));
}

TEST(ADeliveryGate, ForgetsThoseWhoWithdraw) {
  ipc::DeliveryGate gate(1, 1);
  Client first(gate, 1);
  Client second(gate, 2);
  Client third(gate, 3);
  EXPECT_TRUE(first.enter(sample::echo));
  EXPECT_FALSE(second.enter(sample::echo));
  EXPECT_FALSE(third.enter(sample::echo));
  second.withdraw(sample::echo);
  first.leave(sample::echo);
  EXPECT_EQ(second.admissions(), 0);
  EXPECT_EQ(third.admissions(), 1);
}

}  // namespace
}  // namespace kelvane
