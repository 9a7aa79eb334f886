# SPDX-License-Identifier: Apache-2.0
# What the daemon acknowledges on a disk, with the power cut at any write: nothing is lost or shown older.

import os
import random
import re
import tempfile
import time
import unittest

from disk import Disk
from machine import BUILD, PATIENCE_SECONDS, Machine
from mapped_disk import MappedDisk

KEYS = ("one", "two", "three", "four")
WRITER = "/usr/libexec/machine-state-writer"
STATE = "/var/lib/kelvane"
# How many changes are acknowledged, and how many writes the disk takes then, until the power fails, at most.
MOST_CHANGES = 40
MOST_WRITES = 12


def until(condition, what):
    end = time.monotonic() + PATIENCE_SECONDS
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"{what}: not within {PATIENCE_SECONDS} s")
        time.sleep(0.01)


class StateMachine:
    """A machine with its daemon's state on a disk of its own, and what is known of that state. The disk is mounted when
    the machine boots; or, to be made to fail from within, afterwards and behind the device mapper."""

    def __init__(self, disk, is_mapped=False):
        self.disk = disk
        self.is_mapped = is_mapped
        self.mapped = None
        self.machine = Machine(disk, mounts={} if is_mapped else {STATE: disk},
                               files={WRITER: BUILD / "tests/machine/machine_state_writer"})
        # For each key the last number that was acknowledged, and the last that may be there.
        self.acknowledged = dict.fromkeys(KEYS, 0)
        self.sent = dict.fromkeys(KEYS, 0)
        self._reports_read = 0

    def __enter__(self):
        self.machine.__enter__()
        self._map()
        return self

    def __exit__(self, *exception):
        self.machine.__exit__(*exception)

    def boot(self):
        self.machine.boot()
        self._map()

    def _map(self):
        if self.is_mapped:
            self.machine.run("systemctl stop kelvaned.service")
            self.mapped = MappedDisk(self.machine, self.disk)
            self.machine.run(f"mount -t {self.disk.kind} {self.mapped.path} {STATE} && systemctl start kelvaned.service")

    def begin_to_write(self):
        """Ends with the daemon, or when every key has been answered with an error."""
        # Also what the last writer has reported since anybody looked: a smaller number would look older.
        self.take_reports()
        first = max(self.sent.values()) + 1
        self.sent = dict.fromkeys(KEYS, first)
        return self.machine.begin(f"{WRITER} {first} {' '.join(KEYS)} >/dev/vport0p2")

    def take_reports(self):
        """Returns how many changes have been acknowledged in all."""
        reports = self.machine.reports()
        for line in reports[self._reports_read:]:
            sign, key, number = line.split()
            if sign == "+":
                self.acknowledged[key] = int(number)
                # The next one is under way.
                self.sent[key] = int(number) + 1
        self._reports_read = len(reports)
        return sum(line.startswith("+") for line in reports)

    def refused(self):
        """How many changes have been answered with an error."""
        return sum(line.startswith("-") for line in self.machine.reports())

    def state(self):
        """The numbers by their keys; 0 where there is none."""
        command = f"for key in {' '.join(KEYS)}; do kelvanectl state get $key | tail --bytes=64; echo '|'; done"
        numbers = [re.search(r"(\d+);\W*$", text) for text in self.machine.run(command).output.split("|")[:-1]]
        return dict(zip(KEYS, [int(number.group(1)) if number else 0 for number in numbers]))

    def wrong(self):
        """The keys whose state is not what it must be, with what it must be between and what it is. What it is from then
        on is what it must stay."""
        self.take_reports()
        state = self.state()
        wrong = {key: (self.acknowledged[key], self.sent[key], number) for key, number in state.items()
                 if not self.acknowledged[key] <= number <= self.sent[key]}
        self.acknowledged = dict(state)
        return wrong


class DurabilityTest(unittest.TestCase):
    """KELVANE_TEST_SEED repeats the choices of a run that failed."""

    def setUp(self):
        self.seed = int(os.environ.get("KELVANE_TEST_SEED", random.SystemRandom().randrange(2**32)))
        self.chance = random.Random(self.seed)
        self.directory = self.enterContext(tempfile.TemporaryDirectory(prefix="kelvane-disks-"))

    def state_machine(self, kind, **options):
        disk = Disk(self.directory, "state", kind=kind)
        self.addCleanup(disk.close)
        return StateMachine(disk, **options)

    def cut_power(self, state):
        state.machine.cut_power(seed=self.chance.choice((None, self.chance.randrange(2**32))))

    def write_for_a_while(self, state):
        """Returns the writer, which goes on."""
        writer = state.begin_to_write()
        goal = state.take_reports() + self.chance.randrange(MOST_CHANGES)
        until(lambda: state.take_reports() >= goal or writer.has_ended(), f"{goal} changes acknowledged")
        return writer

    def assert_nothing_is_lost(self, state, life):
        self.assertEqual({}, state.wrong(), f"life {life}, KELVANE_TEST_SEED={self.seed}")

    def assert_something_was_to_be_lost(self, state, lives):
        self.assertGreater(state.take_reports(), lives)

    def live_and_die(self, kind, lives):
        """The power fails at a write that chance decides, under load; or while the machine boots."""
        with self.state_machine(kind) as state:
            for life in range(lives):
                self.write_for_a_while(state)
                state.disk.stop_after(self.chance.randrange(MOST_WRITES))
                state.disk.await_held(PATIENCE_SECONDS)
                self.cut_power(state)
                if self.chance.random() < 0.3:
                    state.disk.stop_after(self.chance.randrange(MOST_WRITES))
                    state.machine.begin_to_boot()
                    until(lambda: state.disk.holds() or state.machine.is_ready(), "a write or the end of the boot")
                    self.cut_power(state)
                state.boot()
                self.assert_nothing_is_lost(state, life)
            self.assert_something_was_to_be_lost(state, lives)

    def fail_and_die(self, kind, lives):
        """The disk fails under load in one way or another, and is mended or not before the power fails."""
        with self.state_machine(kind, is_mapped=True) as state:
            for life in range(lives):
                refused = state.refused()
                writer = self.write_for_a_while(state)
                self.chance.choice((state.mapped.fail, lambda: state.mapped.flake("error_writes"),
                                    lambda: state.disk.fail("flush"), lambda: state.disk.fail("write")))()
                writer.wait(seconds=PATIENCE_SECONDS)
                self.assertEqual(refused + len(KEYS), state.refused(), "every client is told, once")
                if self.chance.random() < 0.5:
                    state.mapped.mend()
                    state.disk.mend()
                    self.write_for_a_while(state)
                self.cut_power(state)
                state.boot()
                self.assert_nothing_is_lost(state, life)
            self.assert_something_was_to_be_lost(state, lives)

    def start_unreadable(self, kind):
        """The daemon starts while its state cannot be read, or not even what leads to it."""
        with self.state_machine(kind) as state:
            run = state.machine.run
            run("kelvanectl state set com.example.kept 1")
            for starts, in_memory in enumerate((f"ls -lR {STATE}", ":"), 1):
                run(f"systemctl stop kelvaned.service && sync && echo 3 >/proc/sys/vm/drop_caches && {in_memory}")
                state.disk.fail("read")
                run("systemctl start kelvaned.service")
                run("kelvanectl state set com.example.lost 2")
                self.assertEqual(("", ""), self.kept_and_lost(state))
                self.assertIn("state is not kept: ", self.status_text(state))
                run("grep --quiet '^kelvane_preferences_available 0' /run/kelvane/metrics.prom")
                said = run("journalctl --unit=kelvaned | grep --count 'Unable to open the preferences'").output
                self.assertEqual(starts, int(said))
                state.disk.mend()
                self.assertEqual(("", ""), self.kept_and_lost(state), "before the next start")
                run("systemctl restart kelvaned.service")
                self.assertEqual(("1", ""), self.kept_and_lost(state))
                self.assertNotIn("state is not kept", self.status_text(state))
            self.assertEqual("com.tessaly.kelvane\n", run(f"ls {STATE}/preferences").output)

    @staticmethod
    def kept_and_lost(state):
        return tuple(state.machine.run(f"kelvanectl state get com.example.{key}", check=False).output.strip()
                     for key in ("kept", "lost"))

    @staticmethod
    def status_text(state):
        return state.machine.run("systemctl show --value --property=StatusText kelvaned.service").output
