# SPDX-License-Identifier: Apache-2.0
# What a power cut leaves.

import pathlib
import tempfile
import unittest

from disk import SECTOR, Disk
from machine import Machine


class Power(unittest.TestCase):
    def setUp(self):
        self.directory = self.enterContext(tempfile.TemporaryDirectory(prefix="kelvane-disks-"))

    def disk(self, name, **options):
        disk = Disk(self.directory, name, **options)
        self.addCleanup(disk.close)
        return disk

    def test_keeps_what_was_flushed_and_nothing_else(self):
        raw, files = self.disk("raw", mib=1), self.disk("files", kind="ext4")
        with Machine(raw, mounts={"/data": files}) as machine:
            # The first is only in the disk's cache.
            machine.run("head --bytes=64K /dev/zero | tr '\\0' a >/run/a; head --bytes=64K /dev/zero | tr '\\0' b >/run/b;"
                        "dd if=/run/b of=/dev/disks/raw bs=64K oflag=direct conv=fsync,notrunc;"
                        "dd if=/run/a of=/dev/disks/raw bs=64K oflag=direct conv=notrunc")
            machine.run("echo old >/data/kept && sync /data/kept && echo new >/data/lost")
            machine.cut_power()
            self.assertEqual(b"b" * 65536, pathlib.Path(raw.image).read_bytes()[:65536])
            machine.boot()
            self.assertEqual("old\n", machine.run("cat /data/kept").output)
            self.assertEqual("", machine.run("cat /data/lost", check=False).output)

    def test_leaves_sectors_by_chance_when_it_is_to(self):
        raw = self.disk("raw", mib=1)
        with Machine(raw) as machine:
            machine.run("head --bytes=64K /dev/zero | tr '\\0' a >/run/a; dd if=/run/a of=/dev/disks/raw bs=64K oflag=direct")
            machine.cut_power(seed=1)
        left = pathlib.Path(raw.image).read_bytes()[:65536]
        sectors = [left[begin:begin + SECTOR] for begin in range(0, len(left), SECTOR)]
        self.assertEqual({b"a" * SECTOR, b"\0" * SECTOR}, set(sectors))

    def assert_state_after_a_cut(self, expected, before_the_set=lambda disk: None):
        state = self.disk("state", kind="ext4")
        with Machine(mounts={"/var/lib/kelvane": state}) as machine:
            machine.run("kelvanectl state set com.example.first 1 && sync")
            before_the_set(state)
            machine.run("kelvanectl state set com.example.second 2")
            machine.cut_power()
            state.mend()
            machine.boot()
            second = machine.run("kelvanectl state get com.example.second", check=False).output
            self.assertEqual(expected, (machine.run("kelvanectl state get com.example.first").output, second))

    def test_keeps_a_state_that_was_acknowledged_just_before(self):
        self.assert_state_after_a_cut(("1\n", "2\n"))

    def test_loses_a_state_if_the_disk_lies(self):
        """Or the test above could not fail."""
        self.assert_state_after_a_cut(("1\n", ""), lambda disk: disk.lie())


if __name__ == "__main__":
    unittest.main()
