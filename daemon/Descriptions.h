// SPDX-License-Identifier: Apache-2.0
// Service descriptions: the services that are known before any has checked in.
#pragma once

#include "platform/Value.h"
#include "support/KLService.h"

namespace kelvane {

/// Makes a service's record from its description and puts it into the table, in the place of an earlier one of
/// the same identifier. A description without an identifier is skipped.
void registerDescription(const Value& description, ServiceTable& services);

}  // namespace kelvane
