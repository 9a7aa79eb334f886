// SPDX-License-Identifier: Apache-2.0
// Describes an interface in D-Bus introspection XML.
#include "platform/linux/ipc/Introspection.h"

#include "platform/linux/ipc/Signature.h"

namespace kelvane::ipc {

namespace {

constexpr std::string_view documentType =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n";

constexpr std::string_view standardInterfaces =
    "  <interface name=\"org.freedesktop.DBus.Peer\">\n"
    "    <method name=\"Ping\"/>\n"
    "    <method name=\"GetMachineId\">\n"
    "      <arg name=\"machine_uuid\" type=\"s\" direction=\"out\"/>\n"
    "    </method>\n"
    "  </interface>\n"
    "  <interface name=\"org.freedesktop.DBus.Introspectable\">\n"
    "    <method name=\"Introspect\">\n"
    "      <arg name=\"xml_data\" type=\"s\" direction=\"out\"/>\n"
    "    </method>\n"
    "  </interface>\n"
    "  <interface name=\"org.freedesktop.DBus.Properties\">\n"
    "    <method name=\"Get\">\n"
    "      <arg name=\"interface_name\" type=\"s\" direction=\"in\"/>\n"
    "      <arg name=\"property_name\" type=\"s\" direction=\"in\"/>\n"
    "      <arg name=\"value\" type=\"v\" direction=\"out\"/>\n"
    "    </method>\n"
    "    <method name=\"GetAll\">\n"
    "      <arg name=\"interface_name\" type=\"s\" direction=\"in\"/>\n"
    "      <arg name=\"properties\" type=\"a{sv}\" direction=\"out\"/>\n"
    "    </method>\n"
    "    <method name=\"Set\">\n"
    "      <arg name=\"interface_name\" type=\"s\" direction=\"in\"/>\n"
    "      <arg name=\"property_name\" type=\"s\" direction=\"in\"/>\n"
    "      <arg name=\"value\" type=\"v\" direction=\"in\"/>\n"
    "    </method>\n"
    "  </interface>\n";

std::string argumentXml(std::string_view name, std::string_view type, std::string_view direction) {
  return std::string("      <arg name=\"") + std::string(name) + "\" type=\"" + std::string(type) + "\" direction=\"" +
         std::string(direction) + "\"/>\n";
}

}  // namespace

std::string interfaceXml(const Interface& interface) {
  std::string xml = "  <interface name=\"" + std::string(interface.name) + "\">\n";
  for (const Operation* operation : interface.operations) {
    std::string arguments;
    for (const Argument& argument : operation->arguments) {
      arguments += argumentXml(argument.name, signatureOf(argument.kind), "in");
    }
    if (operation->reply == ReplyKind::Any) {
      arguments += argumentXml("reply", "v", "out");
    }
    xml += "    <method name=\"" + std::string(operation->member) + "\"";
    xml += arguments.empty() ? "/>\n" : ">\n" + arguments + "    </method>\n";
  }
  return xml + "  </interface>\n";
}

std::string objectXml(const Interface& interface) {
  return std::string(documentType) + "<node>\n" + std::string(standardInterfaces) + interfaceXml(interface) +
         "</node>\n";
}

std::string parentXml(std::string_view child) {
  return std::string(documentType) + "<node>\n  <node name=\"" + std::string(child) + "\"/>\n</node>\n";
}

}  // namespace kelvane::ipc
