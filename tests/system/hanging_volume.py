# SPDX-License-Identifier: Apache-2.0
# A volume that hangs when a test wants it to.

import os
import pathlib
import subprocess

PROGRAM = pathlib.Path(os.environ["KELVANE_BUILD"]) / "tests/hanging-volume/hanging_volume"


class HangingVolume:
    """The program hanging_volume, whose help tells of operations, mounted on a directory that it makes. While the volume
    hangs, a test should ask it nothing. It needs this system's root, /dev/fuse and loop devices."""

    def __init__(self, path):
        self.path = pathlib.Path(path)
        self.path.mkdir(parents=True, exist_ok=True)
        self.process = subprocess.Popen([PROGRAM, self.path], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self._answer("the mounting")

    def set_size(self, size):
        self._tell("size", size)

    def set_free(self, size):
        self._tell("free", size)

    def add_file(self, name, line=""):
        self._tell("file", name, line)

    def hang(self, *operations):
        """Holds requests of these kinds, or of all, from now on."""
        self._tell("hang", *(operations or ("all",)))

    def fail(self, operation, error):
        """Answers with an errno from now on."""
        self._tell("fail", operation, error)

    def resume(self, *operations):
        """Answers what is held, and what comes."""
        self._tell("resume", *(operations or ("all",)))

    def await_held(self, *operations):
        """Returns once somebody waits for an answer."""
        self._tell("await", *(operations or ("all",)))

    def held(self, operation="all"):
        return int(self._tell("held", operation))

    def received(self, operation="all"):
        """How many have ever asked."""
        return int(self._tell("received", operation))

    def unmount(self):
        """Whoever still waits for an answer gets an error."""
        self.process.stdin.close()
        self.process.stdout.close()
        self.process.wait()

    def _tell(self, *words):
        command = " ".join(map(str, words))
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()
        return self._answer(command)

    def _answer(self, command):
        answer = self.process.stdout.readline().rstrip("\n")
        if not answer.startswith("ok"):
            raise RuntimeError(f"hanging volume: {command}: {answer or 'it has ended'}")
        return answer.removeprefix("ok").strip()

    def __str__(self):
        return str(self.path)
