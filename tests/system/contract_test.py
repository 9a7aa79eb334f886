# SPDX-License-Identifier: Apache-2.0
# One contract, told three times: by docs/protocol.md, by the interfaces that are installed, and by what runs.

import itertools
import re
import signal
import socket
import typing
import unittest
import xml.etree.ElementTree

from gi.repository import Gio, GLib

from kelvane_system import CONTROL_SOCKET, DAEMON_SOCKET, MIB, SOCKETS, TOP, SystemTest, hold, until
from peers import GdbusService

CLIENT = "com.tessaly.KelvaneClientProtocol"
SERVICE = "com.tessaly.KelvaneServiceProtocol"
PLATFORM = "com.tessaly.KelvanePlatform"
INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs"
DESCRIBED = "com.example.described"

PROTOCOL = (TOP / "docs/protocol.md").read_text()


class Interface(typing.NamedTuple):
    path: str
    # Of each member: the name and type of each argument, and the types of what it is answered with.
    members: dict


def rows(text, *header):
    """Of the table that begins with this header: the cells of each row."""
    _, _, below = text.partition(f"\n| {' | '.join(header)} |\n")
    for line in itertools.takewhile(lambda line: line.startswith("|"), below.splitlines()[1:]):
        yield [cell.strip() for cell in line.strip("|").split("|")]


def quoted(cell):
    return re.findall("`([^`]+)`", cell)


def documented(text):
    """The interfaces by their names, from the sections that are about one each."""
    interfaces = {}
    for heading, section in re.findall(r"^## ([^\n]*)\n(.*?)(?=^## |\Z)", text, re.DOTALL | re.MULTILINE):
        about = re.fullmatch(r".*: `(\S+)` at `(\S+)`", heading)
        if about:
            name, path = about.groups()
            columns = ("Member", "Arguments", "Reply") + (("Entitlement",) if name == CLIENT else ())
            interfaces[name] = Interface(path, {
                quoted(row[0])[0]: (tuple((argument, kind) for kind, argument in re.findall(r"`(\S+)` (\w+)", row[1])),
                                    () if row[2] == "nothing" else tuple(quoted(row[2]) or [row[2]]))
                for row in rows(section, *columns)})
    return interfaces


def documented_types(header):
    """The keys of one of the tables of results, with their types."""
    return {quoted(row[0])[0]: quoted(row[1])[0] for row in rows(PROTOCOL, header, "Type", "Meaning")}


def described(text, path=None):
    """The interfaces of one object, from XML that may tell its path itself."""
    root = xml.etree.ElementTree.fromstring(text)

    def arguments(method, direction):
        return [(part.get("name"), part.get("type")) for part in method.iter("arg")
                if part.get("direction") == direction]

    return {interface.get("name"): Interface(path or root.get("name"), {
        method.get("name"): (tuple(arguments(method, "in")), tuple(kind for _, kind in arguments(method, "out")))
        for method in interface.iter("method")}) for interface in root.iter("interface")}


def shipped_text(name):
    return (TOP / f"packaging/interfaces/{name}.xml").read_text()


def shipped():
    return {name: interface for each in (CLIENT, SERVICE, PLATFORM)
            for name, interface in described(shipped_text(each)).items()}


class Peer:
    """A connection to something that serves."""

    def __init__(self, path):
        self.connection = Gio.DBusConnection.new_for_address_sync(
            f"unix:path={path}", Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT, None, None)

    def call(self, path, interface, member, arguments=None):
        """The answer, whatever its type."""
        # An endpoint, which some take; the other end stays open until the answer is there.
        ours, theirs = socket.socketpair()
        descriptors = Gio.UnixFDList.new()
        with ours, theirs:
            if arguments and "h" in arguments.get_type_string():
                descriptors.append(theirs.fileno())
            answer, _ = self.connection.call_with_unix_fd_list_sync(
                None, path, interface, member, arguments, None, Gio.DBusCallFlags.NONE, -1, descriptors, None)
        return answer

    def call_error(self, *call):
        """The name of the error that is the answer; none when it is another."""
        try:
            self.call(*call)
        except GLib.Error as error:
            return Gio.DBusError.get_remote_error(error)
        return None

    def served(self, path="/"):
        """This system's own interfaces at this path and below it."""
        text = self.call(path, "org.freedesktop.DBus.Introspectable", "Introspect").unpack()[0]
        interfaces = described(text, path)
        for node in xml.etree.ElementTree.fromstring(text).iter("node"):
            if node.get("name"):
                interfaces |= self.served(f"{path.rstrip('/')}/{node.get('name')}")
        return {name: interface for name, interface in interfaces.items() if name.startswith("com.tessaly.")}


# An argument of each type, or of this name, that is answered without further ado.
VALUES = {"s": DESCRIBED, "h": 0, "a{sv}": {}, "v": GLib.Variant("s", "value"), "i": 1, "b": True,
          "name": "com.tessaly.Kelvane.daily", "stream": "com.tessaly.dispatch.vfs"}


def arguments_of(*named_types):
    return GLib.Variant(f"({''.join(kind for _, kind in named_types)})",
                        tuple(VALUES.get(name, VALUES[kind]) for name, kind in named_types))


def wrong_arguments_of(*named_types):
    """One more, one less, and one of another type."""
    yield arguments_of(*named_types, ("one more", "s"))
    for number, named_type in enumerate(named_types):
        others = named_types[:number], named_types[number + 1:]
        yield arguments_of(*others[0], *others[1])
        yield arguments_of(*others[0], ("another", "b"), *others[1])


class Contract(unittest.TestCase):
    maxDiff = None

    def test_is_documented_as_it_is_shipped(self):
        self.assertEqual([CLIENT, PLATFORM, SERVICE], sorted(shipped()))
        self.assertEqual(shipped(), documented(PROTOCOL))

    def test_cannot_be_documented_otherwise_unnoticed(self):
        lines = PROTOCOL.splitlines()
        changes = 0
        for number, line in enumerate(lines):
            if re.match(r"## .* at `|\| `\w+` \| (`\S+` \w+(, `\S+` \w+)*)? *\| (`v`|nothing) \|", line):
                # Names and types; in tables words too, but entitlements are of no interface.
                for word in re.finditer(r"`[^`]+`" + (r"|\w+" if line.startswith("|") else ""), line):
                    if not word.group().endswith("_ENTITLEMENT`"):
                        changed = line[:word.start()] + re.sub(r"[^`]+", "x", word.group()) + line[word.end():]
                        text = "\n".join(lines[:number] + [changed] + lines[number + 1:])
                        self.assertNotEqual(shipped(), documented(text), changed)
                        changes += 1
                if line.startswith("|"):
                    self.assertNotEqual(shipped(), documented("\n".join(lines[:number] + lines[number + 1:])), line)
        # Of each interface its name and path; of each member its name, its reply, and two for each argument.
        members = [member for interface in shipped().values() for member in interface.members.values()]
        self.assertEqual(2 * 3 + sum(2 + 2 * len(arguments) for arguments, _ in members), changes)

    def test_cannot_be_shipped_otherwise_unnoticed(self):
        for name in (CLIENT, SERVICE, PLATFORM):
            root = xml.etree.ElementTree.fromstring(shipped_text(name))
            expected = documented(PROTOCOL)[name]
            for element in root.iter():
                for attribute, value in element.items():
                    if (attribute, value) != ("name", "reply"):
                        element.set(attribute, "x")
                        self.assertNotEqual({name: expected}, described(xml.etree.ElementTree.tostring(root)))
                        element.set(attribute, value)
            self.assertEqual({name: expected}, described(xml.etree.ElementTree.tostring(root)))


class Served(SystemTest):
    """Introspection says what the programs themselves believe; so they are called too."""

    maxDiff = None

    def assert_serves(self, socket_path, name):
        peer, interface = Peer(socket_path), shipped()[name]
        self.assertEqual({name: interface}, peer.served())
        for member, (arguments, reply) in interface.members.items():
            call = (interface.path, name, member)
            answer = peer.call(*call, arguments_of(*arguments))
            self.assertEqual(f"({''.join(reply)})", answer.get_type_string(), member)
            for wrong in wrong_arguments_of(*arguments):
                self.assertEqual(INVALID_ARGS, peer.call_error(*call, wrong), (member, wrong))

    def test_by_the_daemon_to_clients(self):
        # Who is described may say that it is there without more being done about it.
        self.describe(DESCRIBED)
        self.start_daemon()
        self.assert_serves(DAEMON_SOCKET, CLIENT)

    def test_by_the_daemon_to_the_service_manager(self):
        self.start_daemon()
        # Who answers, so that the maintenance ends before its time is over.
        self.start_service("com.example.web", self.volume().path)
        self.assert_serves(CONTROL_SOCKET, PLATFORM)

    def test_by_services_of_the_library(self):
        self.start_on_demand(DESCRIBED, self.volume().path)
        self.assert_serves(SOCKETS / DESCRIBED, SERVICE)


class Called(SystemTest):
    """A service of GLib's, which takes nothing but what the interface that is shipped says."""

    maxDiff = None

    def setUp(self):
        super().setUp()
        self.data = self.volume()
        self.start_daemon()
        self.service = self.checked_in("com.example.glib")
        self.daemon = Peer(DAEMON_SOCKET)

    def checked_in(self, identifier):
        service = GdbusService(self, identifier, self.fill(self.data, identifier, urgencies=(1,)))
        service.check_in()
        return service

    def call(self, member, *arguments):
        interface = shipped()[CLIENT]
        kinds = "".join(kind for _, kind in interface.members[member][0])
        answer = self.daemon.call(interface.path, CLIENT, member, GLib.Variant(f"({kinds})", arguments))
        return answer.get_child_value(0).get_variant() if answer.n_children() else None

    def purge(self):
        """Of which each service is asked for a half, in two passes. The info and the result."""
        info = {"KELVANE_VOLUME": GLib.Variant("s", str(self.data)), "KELVANE_AMOUNT": GLib.Variant("t", 4 * MIB),
                "KELVANE_URGENCY": GLib.Variant("i", 2), "KELVANE_PURGE_TIMEOUT": GLib.Variant("i", 2)}
        return info, self.call("clientPurge", info)

    def test_with_every_member_but_the_one_that_never_is(self):
        volume = GLib.Variant("s", str(self.data))
        self.call("clientPurgeableSpace", {"KELVANE_VOLUME": volume})
        self.call("clientSetState", GLib.Variant("b", False), "KELVANE_CACHE_ENABLED")
        platform = shipped()[PLATFORM]
        arguments = arguments_of(*platform.members["runActivity"][0])
        Peer(CONTROL_SOCKET).call(platform.path, PLATFORM, "runActivity", arguments)
        hold(self.service.process)
        self.purge()
        self.service.process.send(signal.SIGCONT)
        members = shipped()[SERVICE].members.keys() - {"serviceCallback"}
        until(lambda: members <= set(self.service.names()) or not self.service.process.is_running(), "every call")
        self.assertEqual(members, set(self.service.names()) & shipped()[SERVICE].members.keys())

    def test_in_a_purge_with_a_result_of_the_keys_and_types_that_are_documented(self):
        # Asked before the other, whose answer would end the pass otherwise.
        silent = self.checked_in("com.example.asleep")
        hold(silent.process)
        info, result = self.purge()
        silent.process.send(signal.SIGCONT)
        expected = self.types(result, info.keys())
        expected |= self.documented_keys("Result", 1) | self.documented_keys("Result", 2)
        del expected["KELVANE_OPERATION_CANCELLED"]
        self.assertEqual(expected | {"KELVANE_AMOUNT": "t"}, self.types(result, result.keys()))
        # The last pass may end before all is noted.
        one = result.lookup_value("KELVANE_URGENCY_1_OPERATION_INFO", None)
        self.assertEqual(self.documented_keys("Result of a pass", 1), self.types(one, one.keys()))
        self.assertEqual(["com.example.glib"], list(one.unpack()["KELVANE_REPORTING_SERVICES"]))
        self.assertEqual(["com.example.asleep"], one.unpack()["KELVANE_SERVICES_INFLIGHT"])
        # Its answers are what the interface says, and count.
        self.assertGreaterEqual(result.unpack()["KELVANE_AMOUNT_REPORTED"], 2 * MIB)

    @staticmethod
    def types(dictionary, keys):
        return {key: dictionary.lookup_value(key, None).get_type_string() for key in keys}

    @staticmethod
    def documented_keys(header, urgency):
        return {re.sub("_n(_|$)", rf"_{urgency}\1", key): kind for key, kind in documented_types(header).items()}


if __name__ == "__main__":
    unittest.main()
