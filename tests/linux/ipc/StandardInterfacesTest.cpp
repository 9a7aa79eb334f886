// SPDX-License-Identifier: Apache-2.0
// What a listener answers besides its own interface, and how stock tools get along with it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>

#include "platform/linux/ipc/Introspection.h"
#include "tests/linux/ipc/IpcTesting.h"
#include "tests/linux/ipc/RawClient.h"

namespace kelvane {
namespace {

using test::RawClient;
using test::SampleListener;
using testing::HasSubstr;
using testing::StartsWith;
namespace sample = test::sample;

constexpr char objectPath[] = "/com/example/Sample";

RawClient::Append strings(const char* first, const char* second = nullptr) {
  return [=](sd_bus_message* message) {
    return second == nullptr ? sd_bus_message_append(message, "s", first)
                             : sd_bus_message_append(message, "ss", first, second);
  };
}

/// Answers echoes, and everything else with a dictionary.
void answer(const ipc::Request& request) {
  if (&request.operation == &sample::echo) {
    request.reply.send(request.value(0));
  } else {
    request.reply.send(Value(Value::Dictionary{{"answer", Value(42)}}));
  }
}

class AListenersPeer : public testing::Test {
 protected:
  AListenersPeer() { listener.resume(); }

  /// What a command prints on both its outputs, and how it ends.
  std::string output(const std::string& command) {
    std::FILE* pipe = popen(("exec 2>&1; " + command).c_str(), "r");
    std::string text;
    std::array<char, 4096> buffer;
    while (const std::size_t size = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
      text.append(buffer.data(), size);
    }
    const int status = pclose(pipe);
    return status == 0 ? text : text + "(failed)";
  }
  std::string address() const { return "unix:path=" + listener.path(); }

  SampleListener listener{answer};
};

TEST_F(AListenersPeer, IsGreetedWithANameOfItsOwn) {
  RawClient first(listener.path());
  RawClient second(listener.path());
  const auto hello = first.callAt("/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello");
  EXPECT_EQ(hello.signature, "s");
  EXPECT_THAT(hello.text, StartsWith(":1."));
  EXPECT_NE(second.callAt("/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello").text, hello.text);
  EXPECT_EQ(first.callAt("/org/freedesktop/DBus", "org.freedesktop.DBus", "ListNames").error,
            SD_BUS_ERROR_UNKNOWN_METHOD);
}

TEST_F(AListenersPeer, MayPingAtAnyPathAndAskForTheMachine) {
  RawClient client(listener.path());
  const std::string peer = "org.freedesktop.DBus.Peer";
  EXPECT_EQ(client.callAt("/anywhere", peer, "Ping").error, "");
  // Not every machine has an identifier.
  const auto machine = client.callAt("/", peer, "GetMachineId");
  EXPECT_TRUE(machine.signature == "s" ? machine.text.size() == 32 : machine.error == SD_BUS_ERROR_FAILED);
  EXPECT_EQ(client.callAt("/", peer, "Other").error, SD_BUS_ERROR_UNKNOWN_METHOD);
  EXPECT_EQ(client.callAt("/", peer, "Ping").error, "");
}

TEST_F(AListenersPeer, FindsTheObjectFromTheRoot) {
  RawClient client(listener.path());
  const std::string introspectable = "org.freedesktop.DBus.Introspectable";
  EXPECT_THAT(client.callAt("/", introspectable, "Introspect").text, HasSubstr("<node name=\"com\"/>"));
  EXPECT_THAT(client.callAt("/com", introspectable, "Introspect").text, HasSubstr("<node name=\"example\"/>"));
  EXPECT_THAT(client.callAt("/com/example", introspectable, "Introspect").text, HasSubstr("<node name=\"Sample\"/>"));
  EXPECT_EQ(client.callAt("/com/exam", introspectable, "Introspect").error, SD_BUS_ERROR_UNKNOWN_OBJECT);
  EXPECT_EQ(client.callAt(objectPath, introspectable, "Other").error, SD_BUS_ERROR_UNKNOWN_METHOD);
}

TEST_F(AListenersPeer, IsToldTheInterfaceAsItsTableHasIt) {
  RawClient client(listener.path());
  const auto xml = client.callAt(objectPath, "org.freedesktop.DBus.Introspectable", "Introspect").text;
  EXPECT_EQ(xml, ipc::objectXml(sample::interface));
  EXPECT_THAT(xml, HasSubstr("  <interface name=\"com.example.Sample\">\n"
                             "    <method name=\"echo\">\n"
                             "      <arg name=\"value\" type=\"v\" direction=\"in\"/>\n"
                             "      <arg name=\"reply\" type=\"v\" direction=\"out\"/>\n"
                             "    </method>\n"
                             "    <method name=\"tell\">\n"
                             "      <arg name=\"info\" type=\"a{sv}\" direction=\"in\"/>\n"
                             "    </method>\n"
                             "    <method name=\"attach\">\n"
                             "      <arg name=\"name\" type=\"s\" direction=\"in\"/>\n"
                             "      <arg name=\"endpoint\" type=\"h\" direction=\"in\"/>\n"
                             "      <arg name=\"info\" type=\"a{sv}\" direction=\"in\"/>\n"
                             "      <arg name=\"reply\" type=\"v\" direction=\"out\"/>\n"
                             "    </method>\n"
                             "    <method name=\"work\">\n"
                             "      <arg name=\"urgency\" type=\"i\" direction=\"in\"/>\n"
                             "      <arg name=\"info\" type=\"a{sv}\" direction=\"in\"/>\n"
                             "      <arg name=\"reply\" type=\"v\" direction=\"out\"/>\n"
                             "    </method>\n"
                             "    <method name=\"ping\"/>\n"
                             "  </interface>\n"));
}

TEST_F(AListenersPeer, FindsNoProperties) {
  RawClient client(listener.path());
  const std::string properties = "org.freedesktop.DBus.Properties";
  EXPECT_EQ(client.callAt(objectPath, properties, "GetAll", strings("com.example.Sample")).signature, "a{sv}");
  EXPECT_EQ(client.callAt(objectPath, properties, "GetAll", strings("com.example.Other")).error,
            SD_BUS_ERROR_UNKNOWN_INTERFACE);
  EXPECT_EQ(client.callAt(objectPath, properties, "Get", strings("com.example.Sample", "Any")).error,
            SD_BUS_ERROR_UNKNOWN_PROPERTY);
  EXPECT_EQ(client.callAt(objectPath, properties, "GetAll").error, SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(client.callAt("/other", properties, "GetAll", strings("")).error, SD_BUS_ERROR_UNKNOWN_OBJECT);
  EXPECT_EQ(client.callAt(objectPath, properties, "Other", strings("")).error, SD_BUS_ERROR_UNKNOWN_METHOD);
}

TEST_F(AListenersPeer, CanPing) {
  RawClient client(listener.path());
  EXPECT_EQ(client.callAt("/any", "org.freedesktop.DBus.Peer", "Ping").error, "");
}

TEST_F(AListenersPeer, MayBeBusctl) {
  const std::string busctl = "busctl --address=" + address() + " ";
  const std::string target = "com.example.Sample /com/example/Sample com.example.Sample ";
  EXPECT_EQ(output(busctl + "call " + target + "echo v s text"), "v s \"text\"\n");
  EXPECT_EQ(output(busctl + "call " + target + "work 'ia{sv}' 1 1 KEY t 5"), "v a{sv} 1 \"answer\" x 42\n");
  EXPECT_EQ(output(busctl + "call " + target + "ping"), "");
  EXPECT_THAT(output(busctl + "call " + target + "work s text"), HasSubstr("takes arguments of the types"));
  EXPECT_THAT(output(busctl + "introspect com.example.Sample /com/example/Sample"), HasSubstr(".echo"));
  EXPECT_THAT(output(busctl + "tree --list com.example.Sample"), HasSubstr("/com/example/Sample"));
}

TEST_F(AListenersPeer, MayBeDbusSend) {
  const std::string command = "dbus-send --peer=" + address() + " --print-reply --type=method_call " + objectPath;
  EXPECT_THAT(output(command + " com.example.Sample.echo variant:string:text"), HasSubstr("string \"text\""));
  EXPECT_THAT(output(command + " com.example.Sample.tell dict:string:string:k,v"), HasSubstr("method return"));
  EXPECT_THAT(output(command + " com.example.Sample.other"), HasSubstr("UnknownMethod"));
}

TEST_F(AListenersPeer, MayBeGdbus) {
  const std::string call =
      "gdbus call --address " + address() + " --dest com.example.Sample --object-path " + objectPath;
  EXPECT_EQ(output(call + " --method com.example.Sample.echo \"<'text'>\""), "(<'text'>,)\n");
  EXPECT_EQ(output(call + " --method com.example.Sample.work 2 \"{'KEY': <uint64 7>}\""),
            "(<{'answer': <int64 42>}>,)\n");
  EXPECT_THAT(
      output("gdbus introspect --address " + address() + " --dest com.example.Sample --object-path " + objectPath),
      HasSubstr("work(in  i urgency"));
}

}  // namespace
}  // namespace kelvane
