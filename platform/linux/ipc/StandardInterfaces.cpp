// SPDX-License-Identifier: Apache-2.0
// The interfaces that every D-Bus peer is expected to have.
#include "platform/linux/ipc/StandardInterfaces.h"

#include <systemd/sd-id128.h>

#include <atomic>
#include <string>
#include <string_view>

#include "platform/linux/ipc/Introspection.h"

namespace kelvane::ipc {

namespace {

using Answer = std::variant<OutgoingMessage, CallFault>;

constexpr std::string_view busName = "org.freedesktop.DBus";
constexpr std::string_view peerName = "org.freedesktop.DBus.Peer";
constexpr std::string_view introspectableName = "org.freedesktop.DBus.Introspectable";
constexpr std::string_view propertiesName = "org.freedesktop.DBus.Properties";

std::string_view textOf(const char* text) {
  return text == nullptr ? std::string_view() : std::string_view(text);
}

Answer unknownMethod(sd_bus_message* call) {
  return CallFault{SD_BUS_ERROR_UNKNOWN_METHOD, "Unknown method " +
                                                    std::string(textOf(sd_bus_message_get_member(call))) +
                                                    " of interface " + sd_bus_message_get_interface(call)};
}

Answer answerWithText(sd_bus_message* call, const std::string& text) {
  OutgoingMessage reply{.message = nullptr, .bytes = text.size()};
  if (sd_bus_message_new_method_return(call, &reply.message) < 0 ||
      sd_bus_message_append_basic(reply.message, SD_BUS_TYPE_STRING, text.c_str()) < 0) {
    sd_bus_message_unref(reply.message);
    return CallFault{SD_BUS_ERROR_NO_MEMORY, "No memory"};
  }
  return reply;
}

Answer answerBusCall(sd_bus_message* call) {
  if (textOf(sd_bus_message_get_member(call)) != "Hello") {
    return unknownMethod(call);
  }
  static std::atomic<unsigned> lastName = 0;
  return answerWithText(call, ":1." + std::to_string(++lastName));
}

/// At every path.
Answer answerPeerCall(sd_bus_message* call) {
  const std::string_view member = textOf(sd_bus_message_get_member(call));
  if (member == "Ping") {
    OutgoingMessage reply;
    if (sd_bus_message_new_method_return(call, &reply.message) < 0) {
      return CallFault{SD_BUS_ERROR_NO_MEMORY, "No memory"};
    }
    return reply;
  }
  if (member != "GetMachineId") {
    return unknownMethod(call);
  }
  sd_id128_t id;
  if (sd_id128_get_machine(&id) < 0) {
    return CallFault{SD_BUS_ERROR_FAILED, "This machine has no identifier"};
  }
  char text[SD_ID128_STRING_MAX];
  return answerWithText(call, sd_id128_to_string(id, text));
}

Answer answerIntrospectableCall(sd_bus_message* call, const Interface& interface) {
  if (textOf(sd_bus_message_get_member(call)) != "Introspect") {
    return unknownMethod(call);
  }
  const std::string_view path = textOf(sd_bus_message_get_path(call));
  if (path == interface.objectPath) {
    return answerWithText(call, objectXml(interface));
  }
  const std::string parent = path == "/" ? "/" : std::string(path) + "/";
  if (interface.objectPath.starts_with(parent)) {
    const std::string_view rest = interface.objectPath.substr(parent.size());
    return answerWithText(call, parentXml(rest.substr(0, rest.find('/'))));
  }
  return CallFault{SD_BUS_ERROR_UNKNOWN_OBJECT, "Unknown object " + std::string(path)};
}

Answer answerPropertiesCall(sd_bus_message* call, const Interface& interface) {
  const std::string_view member = textOf(sd_bus_message_get_member(call));
  const char* name = nullptr;
  if (textOf(sd_bus_message_get_path(call)) != interface.objectPath) {
    return CallFault{SD_BUS_ERROR_UNKNOWN_OBJECT, "Unknown object " + std::string(sd_bus_message_get_path(call))};
  }
  if (member != "Get" && member != "GetAll" && member != "Set") {
    return unknownMethod(call);
  }
  if (sd_bus_message_read_basic(call, SD_BUS_TYPE_STRING, &name) <= 0) {
    return CallFault{SD_BUS_ERROR_INVALID_ARGS, std::string(member) + " takes an interface's name first"};
  }
  if (textOf(name) != interface.name && !textOf(name).empty() && !textOf(name).starts_with(busName)) {
    return CallFault{SD_BUS_ERROR_UNKNOWN_INTERFACE, "Unknown interface " + std::string(name)};
  }
  if (member != "GetAll") {
    return CallFault{SD_BUS_ERROR_UNKNOWN_PROPERTY, "There are no properties"};
  }
  OutgoingMessage reply{.message = nullptr, .bytes = 0};
  if (sd_bus_message_new_method_return(call, &reply.message) < 0 ||
      sd_bus_message_append(reply.message, "a{sv}", 0) < 0) {
    sd_bus_message_unref(reply.message);
    return CallFault{SD_BUS_ERROR_NO_MEMORY, "No memory"};
  }
  return reply;
}

}  // namespace

std::optional<Answer> answerStandardCall(sd_bus_message* call, const Interface& interface) {
  const std::string_view name = textOf(sd_bus_message_get_interface(call));
  if (name == busName) {
    return answerBusCall(call);
  }
  if (name == peerName) {
    return answerPeerCall(call);
  }
  if (name == introspectableName) {
    return answerIntrospectableCall(call, interface);
  }
  if (name == propertiesName) {
    return answerPropertiesCall(call, interface);
  }
  return std::nullopt;
}

}  // namespace kelvane::ipc
