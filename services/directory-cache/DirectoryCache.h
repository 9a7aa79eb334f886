// SPDX-License-Identifier: Apache-2.0
// The service: directories of files that may be deleted when space runs out.
#pragma once

#include <vector>

#include "services/directory-cache/Configuration.h"
#include "services/directory-cache/SteadyDate.h"
#include "support/KelvaneService.h"

namespace kelvane::directoryCache {

/// Answers for the files of the configured directories. It keeps nothing between requests: every one looks at the
/// directories as they are.
class DirectoryCache : public KelvaneService {
 public:
  explicit DirectoryCache(Configuration configuration);

 private:
  /// For a volume that none of the directories is on, 0.
  std::optional<std::uint64_t> purgeable(const SpaceRequest& request, const Cancellation& cancellation) override;
  std::uint64_t purge(const SpaceRequest& request, const Cancellation& cancellation) override;
  void notify(const std::string& name, const Value& value) override;

  /// The date that ages are counted from at an urgency.
  std::int64_t dateFor(std::int32_t urgency);

  const std::vector<DirectoryRules> directories_;
  SteadyDate steadyDate_;
};

}  // namespace kelvane::directoryCache
