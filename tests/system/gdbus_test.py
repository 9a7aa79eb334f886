# SPDX-License-Identifier: Apache-2.0
# GLib's D-Bus on both sides of the daemon: a client and a service that owe nothing to this project's own library.

import signal
import socket
import unittest

from gi.repository import Gio, GLib

from kelvane_system import DAEMON_SOCKET, MIB, PATIENCE_SECONDS, SOCKETS, SystemTest, files_for_urgency, hold, until
from peers import GdbusService

KIB = 1024

ADDRESS = f"unix:path={DAEMON_SOCKET}"
OBJECT = "/com/tessaly/Kelvane"
INTERFACE = "com.tessaly.KelvaneClientProtocol"


class Service(SystemTest):
    def setUp(self):
        super().setUp()
        self.data = self.volume()
        self.daemon = self.start_daemon()
        self.directory = self.fill(self.data, "com.example.glib", urgencies=(1,), mib=8)

    def start_gdbus_service(self):
        return GdbusService(self, "com.example.glib", self.directory)

    def purge_of(self, mib):
        before = self.data.available()
        status, report = self.purge(self.data, f"{mib}M", "--urgency=1", "--timeout=5")
        self.assertEqual(0, status, report)
        self.assertEqual(mib * MIB, self.data.available() - before)

    def test_is_pinged_before_its_checkin_is_answered(self):
        service = self.start_gdbus_service()
        self.assertEqual({"KELVANE_ID": "com.example.glib", "ANON": True}, service.check_in())
        self.assertEqual(["served", "servicePing", "checked in"], service.names())

    def test_is_asked_for_what_is_missing_and_frees_real_files(self):
        service = self.start_gdbus_service()
        service.check_in()
        self.purge_of(3)
        self.assertEqual(5, files_for_urgency(self.directory, 1))
        _, urgency, info, freed = next(event for event in service.events() if event[0] == "servicePurge")
        self.assertEqual((1, 3 * MIB, str(self.data), 3 * MIB),
                         (urgency, info["KELVANE_AMOUNT"], info["KELVANE_VOLUME"], freed))

    def test_may_check_in_with_the_first_message(self):
        """Which reaches the daemon in one read with the end of the handshake, and a descriptor with it."""
        self.entitle("root", "CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT")
        self.daemon.end()
        daemon = self.start_daemon()
        ours, theirs = socket.socketpair()
        message = Gio.DBusMessage.new_method_call(None, OBJECT, INTERFACE, "clientCheckin")
        descriptors = Gio.UnixFDList.new()
        descriptors.append(theirs.fileno())
        message.set_unix_fd_list(descriptors)
        message.set_body(GLib.Variant("(sha{sv})", ("com.example.raw", 0, {})))
        message.set_serial(1)
        with ours, theirs, socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
            connection.connect(str(DAEMON_SOCKET))
            connection.sendall(b"\0AUTH EXTERNAL\r\nDATA\r\nNEGOTIATE_UNIX_FD\r\n")
            answer = b""
            while b"AGREE_UNIX_FD" not in answer:
                answer += connection.recv(4096)
            hold(daemon)
            connection.sendall(b"BEGIN\r\n")
            socket.send_fds(connection, [message.to_blob(Gio.DBusCapabilityFlags.UNIX_FD_PASSING)], [theirs.fileno()])
            daemon.send(signal.SIGCONT)
            # The daemon turns to the endpoint, which is a D-Bus server to it.
            ours.settimeout(PATIENCE_SECONDS)
            self.assertTrue(ours.recv(100).startswith(b"\0AUTH EXTERNAL"))

    def test_shares_with_a_service_of_another_kind(self):
        self.start_gdbus_service().check_in()
        web = self.fill(self.data, "com.example.web", urgencies=(1,))
        self.start_service("com.example.web", web)
        # One pass may end before a service that gave all it was asked for is asked again.
        status, report = self.purge(self.data, "12M", "--urgency=3", "--timeout=1")
        self.assertEqual(0, status, report)
        self.assertEqual([0, 0], [files_for_urgency(directory, 1) for directory in (self.directory, web)])

    def test_checks_in_again_as_often_as_it_left(self):
        service = self.start_gdbus_service()
        for turn in range(1, 21):
            service.check_in()
            # An endpoint that came while the last one's record stood would be ignored, and not pinged.
            self.assertEqual(turn, service.names().count("servicePing"))
            service.leave()
        service.check_in()
        self.purge_of(2)

    def test_is_forgotten_once_it_has_left(self):
        leaving = self.start_gdbus_service()
        leaving.check_in()
        directory = self.fill(self.data, "com.example.staying", urgencies=(1,), files_per_mib=64)
        staying = GdbusService(self, "com.example.staying", directory)
        staying.check_in()

        def is_asked_for_all():
            begin = len(staying.events())
            status, report = self.purge(self.data, "8K", "--urgency=1", "--timeout=1")
            self.assertEqual(0, status, report)
            # Of several known services each is asked for a part, if at all.
            asked = [event[2]["KELVANE_AMOUNT"] for event in staying.events()[begin:]]
            return asked[:1] == [8 * KIB]

        self.assertFalse(is_asked_for_all())
        leaving.leave()
        until(is_asked_for_all, "the end of its record")

    def test_may_be_killed_and_take_its_place_again(self):
        for _ in range(5):
            service = self.start_gdbus_service()
            service.check_in()
            service.process.send(signal.SIGKILL)
            service.process.wait()
        service = self.start_gdbus_service()
        service.check_in()
        self.assertIn("servicePing", service.names())
        self.purge_of(8)

    def test_hears_of_the_daemons_end(self):
        service = self.start_gdbus_service()
        service.check_in()
        self.daemon.send(signal.SIGTERM)
        until(lambda: "closed" in service.names(), "the end of its connection")


class NamedService(SystemTest):
    def test_is_reached_by_its_name(self):
        data = self.volume()
        self.describe("com.example.glib")
        directory = self.fill(data, "com.example.glib", urgencies=(1,))
        self.start_daemon()
        # Names are the service manager's to give.
        service = GdbusService(self, "com.example.glib", directory, "name", SOCKETS / "com.example.glib", prefix=())
        until(lambda: "listening" in service.names(), "a listening socket")
        status, report = self.purge(data, "3M", "--urgency=1", "--timeout=5")
        self.assertEqual(0, status, report)
        self.assertEqual(1, files_for_urgency(directory, 1))


class Client(SystemTest):
    def setUp(self):
        super().setUp()
        self.data = self.volume()
        self.daemon = self.start_daemon()
        self.directory = self.fill(self.data, "com.example.web", urgencies=(1,))
        self.start_service("com.example.web", self.directory)

    def connect(self, flags=Gio.DBusConnectionFlags.NONE):
        connection = Gio.DBusConnection.new_for_address_sync(
            ADDRESS, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | flags, None, None)
        self.addCleanup(connection.close_sync)
        return connection

    def info(self, mib):
        return {"KELVANE_VOLUME": GLib.Variant("s", str(self.data)), "KELVANE_AMOUNT": GLib.Variant("t", mib * MIB),
                "KELVANE_URGENCY_LIMIT": GLib.Variant("i", 1), "KELVANE_PURGE_TIMEOUT": GLib.Variant("i", 5)}

    def test_frees_space_and_is_told_so(self):
        connection = self.connect()
        before = self.data.available()
        reply = connection.call_sync(None, OBJECT, INTERFACE, "clientPurge", GLib.Variant("(a{sv})", (self.info(2),)),
                                     GLib.VariantType.new("(v)"), Gio.DBusCallFlags.NONE, -1, None)
        self.assertEqual(2 * MIB, self.data.available() - before)
        self.assertEqual("a{sv}", reply.get_child_value(0).get_variant().get_type_string())
        self.assertEqual(str(self.data), reply.unpack()[0]["KELVANE_VOLUME"])

    def test_may_say_hello_as_to_a_broker(self):
        connection = self.connect(Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION)
        self.assertTrue(connection.get_unique_name().startswith(":"))
        reply = connection.call_sync("com.tessaly.kelvane", OBJECT, INTERFACE, "clientCancelPurge",
                                     GLib.Variant("(a{sv})", ({},)), GLib.VariantType.new("()"),
                                     Gio.DBusCallFlags.NONE, -1, None)
        self.assertEqual((), reply.unpack())

    def test_may_use_a_proxy(self):
        proxy = Gio.DBusProxy.new_sync(self.connect(), Gio.DBusProxyFlags.NONE, None, None, OBJECT, INTERFACE, None)
        before = self.data.available()
        proxy.clientPurge("(a{sv})", self.info(1))
        self.assertEqual(MIB, self.data.available() - before)

    def test_is_told_what_is_wrong_with_a_call(self):
        with self.assertRaises(GLib.Error) as caught:
            self.connect().call_sync(None, OBJECT, INTERFACE, "clientPurge", GLib.Variant("(s)", ("hello",)), None,
                                     Gio.DBusCallFlags.NONE, -1, None)
        self.assertEqual("org.freedesktop.DBus.Error.InvalidArgs", Gio.DBusError.get_remote_error(caught.exception))

    def test_is_answered_in_order_without_waiting(self):
        connection, answered, loop = self.connect(), [], GLib.MainLoop()

        def on_answer(_, result, number):
            connection.call_finish(result)
            answered.append(number)
            if len(answered) == 500:
                loop.quit()

        for number in range(500):
            connection.call(None, OBJECT, INTERFACE, "clientCancelPurge", GLib.Variant("(a{sv})", ({},)), None,
                            Gio.DBusCallFlags.NONE, -1, None, on_answer, number)
        deadline = GLib.timeout_add_seconds(PATIENCE_SECONDS, loop.quit)
        loop.run()
        GLib.source_remove(deadline)
        self.assertEqual(list(range(500)), answered)


if __name__ == "__main__":
    unittest.main()
