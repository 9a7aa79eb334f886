// SPDX-License-Identifier: Apache-2.0
// One service's turn in a pass of a purge.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "operations/KelvaneOperation.h"
#include "platform/MutableDictionary.h"
#include "support/KLService.h"

namespace kelvane {

/// What a purge asks of one service, once. A plain value: each request has its own.
struct PurgeServiceRequest {
  std::shared_ptr<KLService> service;
  /// The purge's working result.
  MutableDictionary info;
  std::int32_t urgency;
  /// The pass's.
  MutableDictionary operationInfo;
  KelvaneOperation::Completion completion;
  /// Bytes that the service is asked for.
  std::uint64_t donation = 0;
  /// Free bytes of the volume just before the service was asked, those kept for the superuser among them: whatever
  /// is deleted shows there, also where the first of it only fills up that reserve. None when it was not known.
  std::optional<std::uint64_t> freeBytes = std::nullopt;
  /// How many of the service's answers in a row, before this request, the volume did not bear out.
  int unborneAnswers = 0;
  /// How many requests of the pass the service had before this one.
  int turns = 0;

  const std::string& identifier() const { return service->ID(); }
};

}  // namespace kelvane
