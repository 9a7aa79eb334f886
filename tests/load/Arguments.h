// SPDX-License-Identifier: Apache-2.0
// The arguments of requests for state, and endpoints.
#pragma once

#include <string>
#include <utility>

#include "platform/Value.h"
#include "platform/linux/runtime/FileDescriptor.h"
#include "tests/hostile/Info.h"

namespace kelvane::test {

Append stateOf(const Append& variant, const std::string& key);
Append stateOf(const Value& value, const std::string& key);
Append keyOf(const std::string& key);

/// Both ends of a connection.
std::pair<FileDescriptor, FileDescriptor> socketPair();

}  // namespace kelvane::test
