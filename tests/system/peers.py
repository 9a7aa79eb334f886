# SPDX-License-Identifier: Apache-2.0
# What stands around the daemon and is not this project's: a service of GLib's, a service manager's sockets.

import fcntl
import json
import pathlib
import select
import socket
import subprocess
import sys

from kelvane_system import CACHE_USER, DAEMON_SOCKET, HAS_SYSTEM_ROOT, PATIENCE_SECONDS, until

SERVICE = pathlib.Path(__file__).with_name("gdbus_service.py")
# Caches are their user's, and so are their services.
AS_CACHE_USER = ("setpriv", f"--reuid={CACHE_USER}", "--clear-groups") if HAS_SYSTEM_ROOT else ()


class GdbusService:
    """The process of gdbus_service.py, its orders and what it tells."""

    def __init__(self, test, identifier, directory, way="socket", where=DAEMON_SOCKET, prefix=AS_CACHE_USER, **options):
        self.process = test.start(identifier, *prefix, sys.executable, "-B", SERVICE, identifier, directory, way, where,
                                  stdin=subprocess.PIPE, **options)
        test.addCleanup(self.process.process.stdin.close)

    def order(self, command):
        self.process.process.stdin.write(command.encode() + b"\n")
        self.process.process.stdin.flush()

    def events(self):
        lines = self.process.log().split("\n")[:-1]
        return [json.loads(line) for line in lines if line.startswith("[")]

    def names(self):
        return [event[0] for event in self.events()]

    def check_in(self):
        """Returns the daemon's answer."""
        times = len(self.answers())
        self.order("check in")
        until(lambda: len(self.answers()) > times or not self.process.is_running(), "an answer to a check-in")
        if len(self.answers()) == times or self.answers()[-1][0] != "checked in":
            raise AssertionError(self.process.log())
        return self.answers()[-1][1]

    def answers(self):
        return [event for event in self.events() if event[0] in ("checked in", "not checked in")]

    def leave(self):
        times = self.names().count("closed")
        self.order("leave")
        until(lambda: self.names().count("closed") > times, "the end of its connection")


class HeldSockets:
    """Listening sockets that outlive who serves them, as those of a service manager do."""

    # Above what a program that is started here uses itself.
    FIRST_NUMBER = 100

    def __init__(self, test, *paths):
        self.test = test
        self.sockets = []
        for path in paths:
            path.parent.mkdir(parents=True, exist_ok=True)
            with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as made:
                made.bind(str(path))
                path.chmod(0o666)
                made.listen(100)
                number = fcntl.fcntl(made, fcntl.F_DUPFD_CLOEXEC, self.FIRST_NUMBER)
            self.sockets.append(socket.socket(fileno=number))
            test.addCleanup(self.sockets[-1].close)

    def start(self, name, *command):
        """A program that is passed them."""
        numbers = [held.fileno() for held in self.sockets]
        moves = " ".join(f"{target}<&{number} {number}<&-" for target, number in enumerate(numbers, 3))
        script = f"exec {moves}; LISTEN_PID=$$ LISTEN_FDS={len(numbers)} exec \"$@\""
        return self.test.start(name, "bash", "-c", script, "-", *command, pass_fds=numbers)

    def await_caller(self):
        """Until somebody has connected whom nobody has served."""
        ready, _, _ = select.select(self.sockets, [], [], PATIENCE_SECONDS)
        if not ready:
            raise AssertionError(f"nobody called within {PATIENCE_SECONDS} s")
