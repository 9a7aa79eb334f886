// SPDX-License-Identifier: Apache-2.0
// Frees an amount with no more urgency than it takes.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "platform/Value.h"
#include "tools/kelvanectl/Confirmation.h"
#include "tools/kelvanectl/PurgeReport.h"
#include "tools/kelvanectl/Requests.h"

namespace kelvane::ctl {

/// The daemon and the volume, as an escalation sees them.
class PurgeSite {
 public:
  virtual ~PurgeSite() = default;
  /// Sends one purge request and waits for the daemon's answer, absent for none.
  virtual Outcome purge(const Value& info) = 0;
  /// Bytes of the volume that are available now; none when it does not answer, or is another one by now.
  virtual std::optional<std::uint64_t> available() = 0;
};

/// Whether services may be asked at the highest urgency; asked right before that.
using Permission = std::function<Consent()>;

/// A request at the daemon's full limit waits out all its passes, whatever the first has freed. So this sends a request
/// limited to urgency 1, then one for the rest limited to 2, and so on up to the order's limit, and stops as soon as
/// the volume itself has gained the amount, or when there turned out to be nobody to ask. What services claim does not
/// count.
PurgeReport freeBytes(const PurgeOrder& order, PurgeSite& site, const Permission& permission = nullptr);

}  // namespace kelvane::ctl
