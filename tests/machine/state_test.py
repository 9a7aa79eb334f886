# SPDX-License-Identifier: Apache-2.0
# The daemon's state on an ext4 whose disk or power fails under load, again and again, or whose disk does not answer.

import tempfile
import time
import unittest

from disk import Disk
from durability import STATE, DurabilityTest
from machine import Machine

# What the daemon and systemd wait, and that again and again for a busy machine.
LONGEST_SECONDS = 60


class State(DurabilityTest):
    def test_has_what_was_acknowledged_after_cuts_of_power(self):
        self.live_and_die("ext4", lives=3)

    def test_has_what_was_acknowledged_after_failures_of_the_disk(self):
        self.fail_and_die("ext4", lives=3)


class SilentDisk(unittest.TestCase):
    def setUp(self):
        directory = self.enterContext(tempfile.TemporaryDirectory(prefix="kelvane-disks-"))
        self.disk = Disk(directory, "state", mib=64, kind="ext4")
        self.addCleanup(self.disk.close)
        self.machine = self.enterContext(Machine(mounts={STATE: self.disk}))
        self.addCleanup(self.disk.mend)

    def administrate(self, verb):
        begin = time.monotonic()
        self.machine.run(f"systemctl {verb} kelvaned.service")
        self.assertLess(time.monotonic() - begin, LONGEST_SECONDS)

    def shown(self, name):
        return self.machine.run(f"systemctl show --value --property={name} kelvaned.service").output.strip()

    def stored(self, key):
        return self.machine.run(f"kelvanectl state get com.example.{key}", check=False).output.strip()

    def test_keeps_no_daemon_from_serving(self):
        self.machine.run("kelvanectl state set com.example.kept 1 && systemctl stop kelvaned.service && "
                         f"umount {STATE} && mount -t ext4 /dev/disks/state {STATE} && echo 3 >/proc/sys/vm/drop_caches")
        self.disk.hang("read", "write", "flush")
        processes = set()
        for verb in ("start", "restart"):
            self.administrate(verb)
            self.assertTrue(self.disk.holds())
            self.assertIn("state is not kept: ", self.shown("StatusText"))
            self.machine.run("kelvanectl state set com.example.lost 2")
            self.assertEqual("", self.stored("lost"))
            processes.add(self.shown("MainPID"))
        self.assertEqual(2, len(processes))
        self.machine.run(f"test -e /proc/{min(processes, key=int)}")
        self.disk.mend()
        self.administrate("restart")
        self.assertEqual(("1", ""), (self.stored("kept"), self.stored("lost")))


if __name__ == "__main__":
    unittest.main()
