// SPDX-License-Identifier: Apache-2.0
// What the runtime's tests see of the process from outside.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kelvane::test {

/// Polls until the condition holds; false when it does not for 30 s.
[[nodiscard]] bool eventually(const std::function<bool()>& condition);

/// The kernel's ids of this process's threads of this name.
std::vector<std::string> threadsNamed(const std::string& name);

/// Whether the thread sleeps in a futex wait that has no time limit.
bool sleepsWithoutLimit(const std::string& thread);

}  // namespace kelvane::test
