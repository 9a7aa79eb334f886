// SPDX-License-Identifier: Apache-2.0
// Tells how much the services could free on one volume.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "operations/KelvaneOperation.h"
#include "platform/MutableDictionary.h"

namespace kelvane {

/// One purgeable-space query. Made and started by the registry's dispatch on its purgeable queue, whose thread it
/// holds until it is over. What the record of recent answers knows is taken from there; the other services are asked
/// all at once and waited for a little while. Every answer, late ones too, goes into the record, and the record, read
/// once more, makes the result.
class KelvanePurgeableOperation final : public KelvaneOperation {
 public:
  /// How old an answer may be that stands for asking, and how much the volume's free space may have changed since.
  static constexpr double recentSeconds = 120.0;
  static constexpr std::uint64_t recentFreespaceChange = 5'242'880;
  /// How long a service that opted out is not asked again.
  static constexpr double optOutSeconds = 120.0;

  /// Null when the info is refused. Keeps the services that purge and may be queried.
  static std::shared_ptr<KelvanePurgeableOperation> initWithInfo(const Value& info, const ServiceTable& services);

  /// Blocks until the query is over. The completion is called on this thread with one amount for each service that is
  /// known of, their sum as "KELVANE_TOTAL_AVAILABLE", and the volume.
  void startOperation(const Completion& completion) override;

  /// Nothing: a query runs to its end.
  void cancelOperation() override {}

  /// Notes that a service opts out, which is answered with false; or, without add, tells whether it has within the last
  /// optOutSeconds.
  bool optOutService(const std::string& identifier, bool add) KELVANE_EXCLUDES(collection_queue());
  /// Service identifier to the date at which it opted out. Each operation has its own.
  const MutableDictionary& optOuts() const { return optOuts_; }

  // The record of recent answers: KelvanePurgeableRecentInfo.cpp.

  /// Reads the record: "KELVANE_SERVICES_TO_COUNT" maps services to what it knows of the info's volume, after what no
  /// longer holds was dropped; "KELVANE_SERVICES_TO_QUERY" lists this operation's services that it does not know.
  /// Waits its turn on the registry's defaults queue.
  Value cachedInfo(const Value& info) const;
  /// Has a service's answer ("KELVANE_AMOUNT" on "KELVANE_VOLUME") put into the record, on the same queue; returns at
  /// once.
  static void updateServiceStats(const std::string& identifier, const Value& statistics);

 private:
  KelvanePurgeableOperation() = default;
  std::shared_ptr<KelvanePurgeableOperation> self() {
    return std::static_pointer_cast<KelvanePurgeableOperation>(shared_from_this());
  }

  void askServices(const Value& identifiers, const Value& message);
  void askService(const std::shared_ptr<KLService>& service, const Value& message);
  void handleReply(const std::string& identifier, const Value& message, std::uint64_t startTicks, const Value& reply,
                   const Block& done);
  void awaitReplies() const;
  Value resultOf(const Value& servicesToCount) const;

  const MutableDictionary optOuts_;
};

}  // namespace kelvane
