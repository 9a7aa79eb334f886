# SPDX-License-Identifier: Apache-2.0
# What runs commands in the machine, seen from outside.

import base64
import contextlib
import itertools
import socket
import threading
import typing


class Result(typing.NamedTuple):
    status: int
    output: str
    errors: str


class Command:
    """One that is running, or has."""

    def __init__(self, agent, number, text):
        self._agent = agent
        self._number = number
        self.text = text

    def has_ended(self):
        return self._agent.has_ended(self._number)

    def wait(self, check=True, seconds=60):
        result = self._agent.wait(self._number, self.text, seconds)
        if check and result.status != 0:
            raise AssertionError(f"in the machine: {self.text}: exit status {result.status}\n{result.output}{result.errors}")
        return result


class Agent:
    """One boot's connection to the program guest/agent."""

    def __init__(self, path):
        self.path = path
        path.unlink(missing_ok=True)
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(str(path))
        self._listener.listen()
        self._connection = None
        self._numbers = itertools.count(1)
        self._changed = threading.Condition()
        self._results = {}
        self._is_gone = False
        threading.Thread(target=self._read, daemon=True).start()

    def await_ready(self, seconds):
        """Whether it is, within this time and before the emulator ends."""
        with self._changed:
            self._changed.wait_for(lambda: 0 in self._results or self._is_gone, seconds)
            return 0 in self._results

    def begin(self, text):
        number = next(self._numbers)
        self._connection.sendall(b"%d %s\n" % (number, base64.b64encode(text.encode())))
        return Command(self, number, text)

    def has_ended(self, number):
        with self._changed:
            return number in self._results

    def wait(self, number, text, seconds):
        with self._changed:
            if not self._changed.wait_for(lambda: number in self._results or self._is_gone, seconds):
                raise AssertionError(f"in the machine: {text}: not within {seconds} s")
            if number not in self._results:
                raise AssertionError(f"in the machine: {text}: the machine has ended")
            return self._results[number]

    def close(self):
        for each in (self._listener, self._connection):
            if each is not None:
                with contextlib.suppress(OSError):
                    each.shutdown(socket.SHUT_RDWR)

    def _read(self):
        with self._listener, contextlib.suppress(OSError):
            self._connection, _ = self._listener.accept()
            with self._connection, self._connection.makefile("rb") as answers:
                for line in answers:
                    number, status, output, errors = map(int, line.split())
                    result = Result(status, *(answers.read(length).decode(errors="replace") for length in (output, errors)))
                    with self._changed:
                        self._results[number] = result
                        self._changed.notify_all()
        with self._changed:
            self._is_gone = True
            self._changed.notify_all()
