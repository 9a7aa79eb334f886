// SPDX-License-Identifier: Apache-2.0
// Asks services to do their periodic maintenance on one volume.
#pragma once

#include <chrono>
#include <memory>

#include "operations/KelvaneOperation.h"

namespace kelvane {

/// One round of maintenance. Made and started by the registry's dispatch on its caller's thread, which it
/// holds until every selected service has answered or the time is up.
class KelvanePeriodicOperation final : public KelvaneOperation {
 public:
  static constexpr std::chrono::seconds timeLimit{15};
  /// Whatever urgency the info asks for.
  static constexpr std::int32_t urgency = 3;

  /// Null when the info is refused. Keeps the services that purge and have not declared periodic work of
  /// their own: on purpose, declaring it means not to be asked.
  static std::shared_ptr<KelvanePeriodicOperation> initWithInfo(const Value& info, const ServiceTable& services);

  /// The completion is called on this thread with "KELVANE_AMOUNT": the figure of the service that answered
  /// last with a number, not a sum.
  void startOperation(const Completion& completion) override;

 private:
  struct Round;

  KelvanePeriodicOperation() = default;
  void callService(const std::shared_ptr<KLService>& service, const std::shared_ptr<Round>& round);
  void handleReply(const std::string& identifier, const Value& reply, Round& round, const Block& done);
};

}  // namespace kelvane
