// SPDX-License-Identifier: Apache-2.0
// Describes an interface in D-Bus introspection XML.
#pragma once

#include <string>

#include "platform/IpcInterface.h"

namespace kelvane::ipc {

/// The <interface> element, indented by two spaces, each line ended.
std::string interfaceXml(const Interface& interface);
/// The document for an object that has this interface and the standard ones.
std::string objectXml(const Interface& interface);
/// The document for an object that only has this child.
std::string parentXml(std::string_view child);

}  // namespace kelvane::ipc
