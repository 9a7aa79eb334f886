# SPDX-License-Identifier: Apache-2.0
# The tools that every system has, which know nothing of Kelvane, as its clients.

import itertools
import re
import socket
import subprocess
import threading
import unittest
import xml.etree.ElementTree

from kelvane_system import DAEMON_SOCKET, KELVANED, MIB, SystemTest, files_for_urgency, run, until

ADDRESS = f"unix:path={DAEMON_SOCKET}"
NAME = "com.tessaly.kelvane"
OBJECT = "/com/tessaly/Kelvane"
INTERFACE = "com.tessaly.KelvaneClientProtocol"

# What each member takes and gives.
MEMBERS = {
    "clientCheckin": ("sha{sv}", "v"),
    "clientPurgeableSpace": ("a{sv}", "v"),
    "clientItemizedPurgeableSpace": ("a{sv}", "v"),
    "clientPurge": ("a{sv}", "v"),
    "clientCancelPurge": ("a{sv}", ""),
    "clientSetState": ("vs", ""),
    "clientGetState": ("s", "v"),
}


class Busctl:
    """Command lines of busctl. Says everything, but passes no descriptors."""

    introspect = ("busctl", f"--address={ADDRESS}", "introspect", NAME, OBJECT)
    cancelled = ""

    @staticmethod
    def call(member, *arguments):
        return ("busctl", f"--address={ADDRESS}", "call", NAME, OBJECT, INTERFACE, member, *arguments)

    @classmethod
    def cancel(cls):
        return cls.call("clientCancelPurge", "a{sv}", "1", "KELVANE_TOKEN", "s", "none")

    @classmethod
    def purge(cls, volume, amount):
        return cls.call("clientPurge", "a{sv}", "4", "KELVANE_VOLUME", "s", str(volume), "KELVANE_AMOUNT", "t",
                        str(amount), "KELVANE_URGENCY", "i", "1", "KELVANE_PURGE_TIMEOUT", "y", "5")

    @classmethod
    def space(cls, member, volume):
        return cls.call(member, "a{sv}", "1", "KELVANE_VOLUME", "s", str(volume))

    @classmethod
    def set_state(cls):
        return cls.call("clientSetState", "vs", "as", "2", "one", "two", "com.example.key")

    @classmethod
    def get_state(cls):
        return cls.call("clientGetState", "s", "com.example.key")

    @staticmethod
    def members(output):
        rows = (line.split() for line in output.splitlines())
        return {row[0][1:]: tuple(part.strip("-") for part in row[2:4]) for row in rows if row[0].startswith(".client")}


class Gdbus:
    """Command lines of gdbus. It asks for the name of a peer also where there is one peer only."""

    introspect = ("gdbus", "introspect", "--address", ADDRESS, "--dest", NAME, "--object-path", OBJECT, "--xml")
    cancelled = "()"

    @staticmethod
    def call(member, *arguments):
        return ("gdbus", "call", "--address", ADDRESS, "--dest", NAME, "--object-path", OBJECT, "--method",
                f"{INTERFACE}.{member}", *arguments)

    @classmethod
    def cancel(cls):
        return cls.call("clientCancelPurge", "{'KELVANE_TOKEN': <'none'>}")

    @classmethod
    def purge(cls, volume, amount):
        return cls.call("clientPurge", f"{{'KELVANE_VOLUME': <'{volume}'>, 'KELVANE_AMOUNT': <uint64 {amount}>, "
                                       "'KELVANE_URGENCY': <1>, 'KELVANE_PURGE_TIMEOUT': <byte 5>}")

    @classmethod
    def space(cls, member, volume):
        return cls.call(member, f"{{'KELVANE_VOLUME': <'{volume}'>}}")

    @classmethod
    def set_state(cls):
        return cls.call("clientSetState", "<['one', 'two']>", "com.example.key")

    @classmethod
    def get_state(cls):
        return cls.call("clientGetState", "com.example.key")

    @staticmethod
    def members(output):
        return members_of(output)


class DbusSend:
    """Command lines of dbus-send. Its dictionaries hold values of one type, which may not be a variant."""

    introspect = ("dbus-send", f"--peer={ADDRESS}", "--print-reply=literal", OBJECT,
                  "org.freedesktop.DBus.Introspectable.Introspect")
    cancelled = ""

    @staticmethod
    def call(member, *arguments):
        return ("dbus-send", f"--peer={ADDRESS}", "--print-reply=literal", OBJECT, f"{INTERFACE}.{member}", *arguments)

    @classmethod
    def cancel(cls):
        return cls.call("clientCancelPurge", "dict:string:string:KELVANE_TOKEN,none")

    @classmethod
    def space(cls, member, volume):
        return cls.call(member, f"dict:string:string:KELVANE_VOLUME,{volume}")

    @classmethod
    def set_state(cls):
        return cls.call("clientSetState", "variant:string:one", "string:com.example.key")

    @classmethod
    def get_state(cls):
        return cls.call("clientGetState", "string:com.example.key")

    @staticmethod
    def members(output):
        return members_of(output)


TOOLS = (Busctl, Gdbus, DbusSend)


def members_of(text):
    """Of the daemon's interface, from an introspection's XML; tools write a little around it."""
    root = xml.etree.ElementTree.fromstring(text[text.index("<node"):text.rindex("</node>") + len("</node>")])

    def types(method, direction):
        return "".join(part.get("type") for part in method.iter("arg") if part.get("direction") == direction)

    return {method.get("name"): (types(method, "in"), types(method, "out"))
            for method in root.iterfind(f"./interface[@name='{INTERFACE}']/method")}


class StockToolsTest(SystemTest):
    def answer(self, command):
        result = run(*command)
        self.assertEqual((0, ""), (result.returncode, result.stderr), command)
        return result.stdout

    def failures(self, commands):
        """What went wrong with any of the commands, which run one after the other and are cancels."""
        results = ((tool, run(*tool.cancel())) for tool in commands)
        return [(tool.__name__, result.returncode, result.stdout, result.stderr) for tool, result in results
                if (result.returncode, result.stdout.strip(), result.stderr) != (0, tool.cancelled, "")]


class Members(StockToolsTest):
    def test_are_shown_by_each_tool(self):
        self.start_daemon()
        for tool in TOOLS:
            self.assertEqual(MEMBERS, tool.members(self.answer(tool.introspect)), tool)

    def test_free_space(self):
        volume = self.volume()
        self.start_daemon()
        directory = self.fill(volume, "com.example.web")
        self.start_service("com.example.web", directory)
        for tool in (Busctl, Gdbus):
            before = volume.available()
            answer = self.answer(tool.purge(volume, 2 * MIB))
            self.assertEqual(2 * MIB, volume.available() - before, tool)
            # A dictionary in a variant, which is not shown alike by both.
            self.assertRegex(answer, r"^(v a\{sv\} |\(<\{)")
            self.assertRegex(answer, rf"\bKELVANE_VOLUME\W.*{volume}\b")
        self.assertEqual([0, 4], [files_for_urgency(directory, 1), files_for_urgency(directory, 2)])

    def test_free_nothing_when_no_amount_can_be_told(self):
        volume = self.volume()
        self.start_daemon()
        directory = self.fill(volume, "com.example.web")
        self.start_service("com.example.web", directory)
        for tool in TOOLS:
            self.assertIn(str(volume), self.answer(tool.space("clientPurge", volume)), tool)
        self.assertEqual(4, files_for_urgency(directory, 1))

    def test_answer_none_for_what_is_no_volume(self):
        self.start_daemon()
        for tool, none in ((Busctl, 'v o "/"'), (Gdbus, "(<objectpath '/'>,)"), (DbusSend, "variant       /")):
            self.assertEqual(none, self.answer(tool.space("clientPurge", "/nowhere")).strip(), tool)

    def test_cancel(self):
        self.start_daemon()
        for tool in TOOLS:
            self.assertEqual(tool.cancelled, self.answer(tool.cancel()).strip())

    def test_are_told_what_is_wrong_with_a_call(self):
        self.start_daemon()
        words = 'clientPurge takes arguments of the types "a{sv}", not "s"'
        for tool, arguments in ((Busctl, ("s", "hello")), (DbusSend, ("string:hello",))):
            result = run(*tool.call("clientPurge", *arguments))
            self.assertEqual(1, result.returncode, tool)
            self.assertIn(words, result.stderr, tool)
        # This one looks at the types itself.
        self.assertNotEqual(0, run(*Gdbus.call("clientPurge", "'hello'")).returncode)

    def test_are_answered_for_state_and_purgeable_space(self):
        volume = self.volume()
        self.start_daemon()
        for tool in TOOLS:
            for command in (tool.set_state(), tool.get_state(), tool.space("clientPurgeableSpace", volume),
                            tool.space("clientItemizedPurgeableSpace", volume)):
                result = run(*command)
                if result.returncode == 0:
                    self.assertEqual("", result.stderr, command)
                else:
                    # An error of the daemon's, not a broken connection.
                    self.assertRegex(result.stderr, r"client[A-Z]\w+", command)
                    self.assertNotRegex(result.stderr, r"NoReply|Disconnected|Connection reset", command)

    def test_a_checkin_without_a_descriptor_is_an_error(self):
        """What tools that pass no descriptors can say of it."""
        self.start_daemon()
        for command in (DbusSend.call("clientCheckin", "string:com.example.web", "dict:string:boolean:PURGE,true"),
                        Gdbus.call("clientCheckin", "com.example.web", "handle 0", "{'PURGE': <true>}")):
            result = run(*command)
            self.assertEqual(1, result.returncode, command)
        self.assertEqual([], self.failures(TOOLS))


class Comers(threading.Thread):
    """Connections that come and go beside: so many at any time, and going at each stage of the handshake."""

    # What they send; and whether they wait for an answer, without which they would be a flood.
    STAGES = ((b"", False), (b"\0", False), (b"\0AUTH EXTERNAL\r\nDATA\r\n", True),
              (b"\0AUTH EXTERNAL\r\nDATA\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n", True))

    def __init__(self, number):
        super().__init__()
        self.number = number
        self.came = 0
        self.enough = threading.Event()

    def run(self):
        there = []
        for words, is_answered in itertools.cycle(self.STAGES):
            if self.enough.is_set():
                break
            comer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            comer.connect(str(DAEMON_SOCKET))
            comer.sendall(words)
            if is_answered:
                assert comer.recv(4096).startswith(b"DATA")
            there.append(comer)
            self.came += 1
            if len(there) > self.number:
                there.pop(0).close()
        for comer in there:
            comer.close()

    def __enter__(self):
        self.start()
        until(lambda: self.came >= self.number, "the first comers")
        return self

    def __exit__(self, *_):
        self.enough.set()
        self.join()


class Reliability(StockToolsTest):
    """Every call is answered, whatever the tool and the moment."""

    def test_a_hundred_calls_out_of_a_hundred_are_answered(self):
        self.start_daemon()
        self.assertEqual([], self.failures(TOOLS * 100))

    def test_a_hundred_introspections_out_of_a_hundred_are_whole(self):
        self.start_daemon()
        for tool in TOOLS:
            for _ in range(100):
                self.assertEqual(MEMBERS, tool.members(self.answer(tool.introspect)))

    def test_a_hundred_calls_are_answered_while_64_connections_come_and_go(self):
        daemon = self.start_daemon()
        with Comers(64) as comers:
            came = comers.came
            self.assertEqual([], self.failures(TOOLS * 100))
            self.assertTrue(comers.is_alive())
            self.assertGreater(comers.came - came, 64)
        self.assertTrue(daemon.is_running())

    def test_a_hundred_calls_at_once_are_answered(self):
        self.start_daemon()
        commands = [tool.cancel() for tool in TOOLS * 34]
        tools = [subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
                 for command in commands]
        errors = [tool.communicate()[1] for tool in tools]
        self.assertEqual([], [error for tool, error in zip(tools, errors) if tool.returncode != 0 or error])

    def test_a_hundred_calls_are_answered_right_after_the_daemons_start(self):
        for _ in range(100):
            DAEMON_SOCKET.unlink(missing_ok=True)
            daemon = self.start("kelvaned", KELVANED)
            # As soon as there is something to connect to.
            while not DAEMON_SOCKET.exists():
                self.assertTrue(daemon.is_running(), daemon.log())
            tools = [(tool, subprocess.Popen(tool.cancel(), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                             stderr=subprocess.PIPE, text=True)) for tool in TOOLS]
            for tool, process in tools:
                _, error = process.communicate()
                self.assertEqual((0, ""), (process.returncode, error), tool)
            daemon.end()


if __name__ == "__main__":
    unittest.main()
