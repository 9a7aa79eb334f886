// SPDX-License-Identifier: Apache-2.0
// The D-Bus signatures of an interface's operations.
#pragma once

#include <string>

#include "platform/IpcInterface.h"

namespace kelvane::ipc {

constexpr const char* signatureOf(ArgumentKind kind) {
  switch (kind) {
    case ArgumentKind::Integer:
      return "i";
    case ArgumentKind::String:
      return "s";
    case ArgumentKind::Dictionary:
      return "a{sv}";
    case ArgumentKind::Any:
      return "v";
    case ArgumentKind::Endpoint:
      return "h";
  }
  return "";
}

inline std::string signatureOf(const Operation& operation) {
  std::string signature;
  for (const Argument& argument : operation.arguments) {
    signature += signatureOf(argument.kind);
  }
  return signature;
}

}  // namespace kelvane::ipc
