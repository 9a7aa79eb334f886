// SPDX-License-Identifier: Apache-2.0
// The base of operations: what infos it accepts, who is in flight, cancelling.
#include "operations/KelvaneOperation.h"

#include "protocols/Keys.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

/// Does nothing by itself.
class PlainOperation : public KelvaneOperation {
 public:
  bool initialise(const Value& info, const ServiceTable& services = {}) {
    return KelvaneOperation::initWithInfo(info, services);
  }
  void startOperation(const Completion& completion) override { completion({}); }

  using KelvaneOperation::collection_queue;
  using KelvaneOperation::message_queue;
};

/// What is left of an operation whose info was refused.
Value refusal(const char* text) {
  return Value::Dictionary{{"KELVANE_ERROR", text}};
}

class AnOperation : public OperationTest {
 protected:
  static Value infoWith(const Value::Dictionary& entries) {
    Value::Dictionary info = entries;
    info[keys::volume] = volume;
    return info;
  }

  static std::int32_t urgencyLimitOf(const Value::Dictionary& entries) {
    PlainOperation operation;
    EXPECT_TRUE(operation.initialise(infoWith(entries)));
    return operation.urgencyLimit();
  }
};

TEST_F(AnOperation, TakesOverAnInfoThatNamesAUsableVolume) {
  run([&] {
    PlainOperation operation;
    const Value info = infoWith({{"other", 1}});
    ASSERT_TRUE(operation.initialise(info));
    EXPECT_EQ(operation.info(), info);
    EXPECT_EQ(operation.result(), info);
    EXPECT_EQ(operation.volume(), volume);
    EXPECT_EQ(operation.inFlightCount(), 0u);
  });
}

TEST_F(AnOperation, HasTwoQueuesOfItsOwn) {
  run([&] {
    const PlainOperation operation;
    EXPECT_EQ(operation.collection_queue().label(), "com.tessaly.kelvane_operation_collection");
    EXPECT_EQ(operation.message_queue().label(), "com.tessaly.kelvane_operation_message");
    const PlainOperation other;
    EXPECT_FALSE(operation.collection_queue() == other.collection_queue());
    EXPECT_FALSE(operation.message_queue() == other.message_queue());
  });
}

TEST_F(AnOperation, RefusesAnInfoThatIsNoDictionary) {
  run([&] {
    PlainOperation operation;
    EXPECT_FALSE(operation.initialise("info"));
    EXPECT_EQ(operation.result(), refusal("Parameter error, info is not a dict"));
    EXPECT_EQ(log().texts(3),
              std::vector<std::string>{"-[KelvaneOperation initWithInfo:services:] info is not a dictionary!"});
  });
}

TEST_F(AnOperation, RefusesAnInfoWithoutAVolume) {
  run([&] {
    PlainOperation operation;
    EXPECT_FALSE(operation.initialise(Value::Dictionary{{"kelvane_volume", volume}}));
    EXPECT_EQ(operation.result(), refusal("Parameter error, no Volume key in info dict"));
    EXPECT_EQ(log().texts(3),
              std::vector<std::string>{"-[KelvaneOperation initWithInfo:services:] No Volume key in info: "
                                       "{ kelvane_volume = \"/data\"; }"});
  });
}

TEST_F(AnOperation, RefusesAVolumeThatIsANumberAsAbsent) {
  run([&] {
    PlainOperation operation;
    EXPECT_FALSE(operation.initialise(Value::Dictionary{{keys::volume, 7}}));
    EXPECT_EQ(operation.result(), refusal("Parameter error, no Volume key in info dict"));
    EXPECT_EQ(log().texts(3),
              std::vector<std::string>{"-[KelvaneOperation initWithInfo:services:] No Volume key in info: "
                                       "{ KELVANE_VOLUME = 7; }"});
  });
}

TEST_F(AnOperation, RefusesAVolumeThatIsNotUsable) {
  run([&] {
    simulation->volumes().setUsable(volume, false);
    PlainOperation operation;
    EXPECT_FALSE(operation.initialise(infoWith({})));
    EXPECT_EQ(operation.result(), refusal("Parameter error, Unable to validate volume in info dict"));
    EXPECT_EQ(log().texts(3),
              std::vector<std::string>{"-[KelvaneOperation initWithInfo:services:] Unable to validate volume: /data"});
  });
}

TEST_F(AnOperation, LimitsTheUrgencyToWhatTheInfoAsksForFromOneToFour) {
  run([&] {
    for (std::int32_t urgency = 1; urgency <= 4; ++urgency) {
      EXPECT_EQ(urgencyLimitOf({{keys::urgency, urgency}}), urgency);
    }
  });
}

TEST_F(AnOperation, LimitsTheUrgencyToThreeForAnythingElse) {
  run([&] {
    EXPECT_EQ(urgencyLimitOf({}), 3);
    EXPECT_EQ(urgencyLimitOf({{keys::urgency, 5}}), 3);
    EXPECT_EQ(urgencyLimitOf({{keys::urgency, 0}}), 3);
    EXPECT_EQ(urgencyLimitOf({{keys::urgency, -1}}), 3);
    EXPECT_EQ(urgencyLimitOf({{keys::urgency, "2"}}), 3);
    EXPECT_EQ(urgencyLimitOf({{keys::urgencyLimit, 5}}), 3);
    EXPECT_EQ(urgencyLimitOf({{keys::urgencyLimit, 0}}), 3);
    EXPECT_EQ(urgencyLimitOf({{keys::urgencyLimit, "2"}}), 3);
  });
}

TEST_F(AnOperation, ReadsTheUrgencyAsA32BitInteger) {
  run([&] { EXPECT_EQ(urgencyLimitOf({{keys::urgency, (std::uint64_t{1} << 32) + 2}}), 2); });
}

TEST_F(AnOperation, TakesEveryKindOfNumberAsUrgency) {
  run([&] {
    EXPECT_EQ(urgencyLimitOf({{keys::urgency, true}}), 1);
    EXPECT_EQ(urgencyLimitOf({{keys::urgency, false}}), 3);
    EXPECT_EQ(urgencyLimitOf({{keys::urgency, 4.9}}), 4);
    EXPECT_EQ(urgencyLimitOf({{keys::urgency, 0.9}}), 3);
  });
}

TEST_F(AnOperation, LooksAtTheUrgencyLimitOnlyWithoutAnUrgency) {
  run([&] {
    EXPECT_EQ(urgencyLimitOf({{keys::urgencyLimit, 1}}), 1);
    EXPECT_EQ(urgencyLimitOf({{keys::urgency, 2}, {keys::urgencyLimit, 4}}), 2);
    EXPECT_EQ(urgencyLimitOf({{keys::urgency, "2"}, {keys::urgencyLimit, 4}}), 3);
  });
}

TEST_F(AnOperation, TellsWhetherAnUpdateChangedWhoIsInFlight) {
  run([&] {
    PlainOperation operation;
    ASSERT_TRUE(operation.initialise(infoWith({})));
    log().clear();
    EXPECT_TRUE(operation.updateInFlight("a", true));
    EXPECT_FALSE(operation.updateInFlight("a", true));
    EXPECT_EQ(operation.inFlightCount(), 1u);
    EXPECT_TRUE(operation.updateInFlight("a", false));
    EXPECT_FALSE(operation.updateInFlight("a", false));
    EXPECT_EQ(operation.inFlightCount(), 0u);

    const std::string name = "-[KelvaneOperation updateInFlight:add:]_block ";
    EXPECT_EQ(log().texts(3), std::vector<std::string>{name + "trying to add \"a\", which is already inFlight"});
    EXPECT_EQ(log().texts(5),
              (std::vector<std::string>{name + "adding a", name + "adding a", name + "removing a", name + "removing a",
                                        name + "trying to remove \"a\", which is not inFlight"}));
  });
}

TEST_F(AnOperation, SendsNothingWhenItIsCancelledWithNobodyInFlight) {
  run([&] {
    ScriptedService service("a");
    const auto operation = std::make_shared<PlainOperation>();
    ASSERT_TRUE(operation->initialise(infoWith({}), tableOf({service.record()})));
    operation->cancelOperation();
    simulation->settle();
    EXPECT_TRUE(service.calls().empty());
  });
}

TEST_F(AnOperation, AsksThoseInFlightToStopWhenItIsCancelledAndLeavesThemInFlight) {
  run([&] {
    ScriptedService asked("a");
    ScriptedService idle("b");
    const auto operation = std::make_shared<PlainOperation>();
    ASSERT_TRUE(operation->initialise(infoWith({}), tableOf({asked.record(), idle.record()})));
    operation->updateInFlight("a", true);
    operation->cancelOperation();
    simulation->settle();
    EXPECT_EQ(asked.calls(), std::vector<std::string>{"serviceCancelPurge"});
    EXPECT_TRUE(idle.calls().empty());
    EXPECT_EQ(operation->inFlightCount(), 1u);
  });
}

TEST_F(AnOperation, IsCancelledWithoutWaitingForItsCollectionQueue) {
  run([&] {
    ScriptedService service("a");
    const auto operation = std::make_shared<PlainOperation>();
    ASSERT_TRUE(operation->initialise(infoWith({}), tableOf({service.record()})));
    operation->updateInFlight("a", true);
    operation->collection_queue().suspend();
    bool returned = false;
    globalQueue::async([&] {
      operation->cancelOperation();
      returned = true;
    });
    simulation->settle();
    EXPECT_TRUE(returned);
    EXPECT_TRUE(service.calls().empty());
    operation->collection_queue().resume();
    simulation->settle();
    EXPECT_EQ(service.calls(), std::vector<std::string>{"serviceCancelPurge"});
  });
}

TEST_F(AnOperation, ForgetsAServiceWhoseConnectionFailsUnderACancel) {
  run([&] {
    ScriptedService service("a");
    service.onCancel = ScriptedService::dies();
    const auto operation = std::make_shared<PlainOperation>();
    ASSERT_TRUE(operation->initialise(infoWith({}), tableOf({service.record()})));
    operation->updateInFlight("a", true);
    operation->cancelOperation();
    simulation->settle();
    EXPECT_EQ(operation->inFlightCount(), 0u);
    EXPECT_EQ(log().count("-[KelvaneOperation cancelOperation]_block connection invalidated: a", 5), 1u);
    EXPECT_TRUE(log().texts(3).empty());
  });
}

}  // namespace
}  // namespace kelvane::test
