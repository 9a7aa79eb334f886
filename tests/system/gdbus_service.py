# SPDX-License-Identifier: Apache-2.0
# A service that owes nothing to this project's own library: GLib's D-Bus on one end of a socket pair.
#
#   gdbus_service.py IDENTIFIER DIRECTORY socket PATH|descriptor NUMBER|name PATH
#
# It frees the files of DIRECTORY. With "socket" or "descriptor" it checks in at the daemon's socket, or on a connection
# to it that it inherits, whenever standard input says "check in"; "leave" ends the service it is by then. With "name"
# it listens at PATH instead. What happens is told on standard output, one JSON array a line. It ends with its input.

import json
import os
import pathlib
import socket
import sys

from gi.repository import Gio, GLib

# As installed; GLib refuses calls that are not as it says.
INTERFACES = pathlib.Path(__file__).resolve().parents[2] / "packaging/interfaces"
INTERFACE = Gio.DBusNodeInfo.new_for_xml(
    (INTERFACES / "com.tessaly.KelvaneServiceProtocol.xml").read_text()).interfaces[0]


def tell(*event):
    print(json.dumps(event), flush=True)


def connection_on(descriptor):
    """A stream of GLib's, which owns the descriptor from now on."""
    return Gio.Socket.new_from_fd(descriptor).connection_factory_create_connection()


class Service:
    """Lives on the main loop's thread."""

    def __init__(self, identifier, directory):
        self.identifier = identifier
        self.directory = directory
        # Kept for as long as they last: GLib ends a connection that nobody holds.
        self.endpoint = None
        self.connections = []

    def check_in(self, daemon):
        ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM)
        # The handshake needs the daemon, which gets its end with the check-in only. Without the delay the daemon's ping
        # might find no object yet.
        flags = Gio.DBusConnectionFlags.AUTHENTICATION_SERVER | Gio.DBusConnectionFlags.DELAY_MESSAGE_PROCESSING
        Gio.DBusConnection.new(connection_on(ours.detach()), Gio.dbus_generate_guid(), flags, None, None,
                               self.on_served, None)
        descriptors = Gio.UnixFDList.new()
        number = descriptors.append(theirs.fileno())
        theirs.close()
        info = {"PURGE": GLib.Variant("b", True),
                "KELVANE_NOTIFICATIONS": GLib.Variant("as", ["KELVANE_CACHE_ENABLED"])}
        daemon.call_with_unix_fd_list(
            None, "/com/tessaly/Kelvane", "com.tessaly.KelvaneClientProtocol", "clientCheckin",
            GLib.Variant("(sha{sv})", (self.identifier, number, info)), GLib.VariantType.new("(v)"),
            Gio.DBusCallFlags.NONE, -1, descriptors, None, self.on_checked_in, None)

    def on_served(self, _, result, __):
        try:
            self.endpoint = Gio.DBusConnection.new_finish(result)
        except GLib.Error as error:
            tell("not served", error.message)
        else:
            self.serve(self.endpoint)
            self.endpoint.start_message_processing()

    def on_checked_in(self, daemon, result, _):
        try:
            reply, _ = daemon.call_with_unix_fd_list_finish(result)
            tell("checked in", reply.unpack()[0])
        except GLib.Error as error:
            tell("not checked in", error.message)

    def serve(self, connection):
        tell("served")
        connection.connect("closed", lambda *_: tell("closed"))
        connection.register_object("/com/tessaly/KelvaneService", INTERFACE, self.on_call, None, None)

    def on_call(self, _, __, ___, ____, member, arguments, invocation):
        if member == "servicePurge":
            urgency, info = arguments.unpack()
            freed = self.free(info.get("KELVANE_AMOUNT", 0))
            tell(member, urgency, info, freed)
            reply = {"KELVANE_AMOUNT": GLib.Variant("t", freed)}
            invocation.return_value(GLib.Variant("(v)", (GLib.Variant("a{sv}", reply),)))
        elif INTERFACE.lookup_method(member).out_args:
            tell(member, *arguments.unpack())
            invocation.return_value(GLib.Variant("(v)", (GLib.Variant("a{sv}", {}),)))
        else:
            tell(member, *arguments.unpack())
            invocation.return_value(None)

    def free(self, amount):
        freed = 0
        for file in sorted(pathlib.Path(self.directory).iterdir()):
            if freed >= amount:
                break
            freed += file.stat().st_blocks * 512
            file.unlink()
        return freed

    def leave(self):
        self.endpoint.close_sync(None)
        self.endpoint = None


def connect_to_daemon(way, where):
    flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
    if way == "socket":
        return Gio.DBusConnection.new_for_address_sync(f"unix:path={where}", flags, None, None)
    return Gio.DBusConnection.new_sync(connection_on(int(where)), None, flags, None, None)


def listen(service, path):
    server = Gio.DBusServer.new_sync(f"unix:path={path}", Gio.DBusServerFlags.NONE, Gio.dbus_generate_guid(), None,
                                     None)

    def on_connection(_, connection):
        service.connections.append(connection)
        service.serve(connection)
        return True

    server.connect("new-connection", on_connection)
    server.start()
    tell("listening")
    return server


def main(identifier, directory, way, where):
    loop = GLib.MainLoop()
    service = Service(identifier, directory)
    # Held for as long as the loop runs.
    peer = listen(service, where) if way == "name" else connect_to_daemon(way, where)

    def on_input(*_):
        for command in os.read(0, 4096).decode().splitlines() or ["end"]:
            {"check in": lambda: service.check_in(peer), "leave": service.leave, "end": loop.quit}[command]()
        return True

    GLib.unix_fd_add_full(GLib.PRIORITY_DEFAULT, 0, GLib.IOCondition.IN | GLib.IOCondition.HUP, on_input)
    loop.run()


if __name__ == "__main__":
    main(*sys.argv[1:])
