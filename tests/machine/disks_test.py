# SPDX-License-Identifier: Apache-2.0
# Disks that fail as they are told, from outside and from within the machine.

import tempfile
import unittest

from disk import Disk
from machine import Machine
from mapped_disk import MappedDisk

BLOCK = "bs=4096 count=1 status=none"


class Disks(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = cls.enterClassContext(tempfile.TemporaryDirectory(prefix="kelvane-disks-"))
        cls.outer, cls.inner = Disk(directory, "outer", mib=4), Disk(directory, "inner", mib=4)
        cls.addClassCleanup(cls.outer.close)
        cls.addClassCleanup(cls.inner.close)
        cls.machine = cls.enterClassContext(Machine(cls.outer, cls.inner))
        cls.mapped = MappedDisk(cls.machine, cls.inner)

    def setUp(self):
        self.addCleanup(self.outer.mend)
        self.addCleanup(self.mapped.mend)

    def read(self, path):
        return self.machine.run(f"dd if={path} {BLOCK} iflag=direct | head --bytes=5", check=False)

    def write(self, path, text, *flags):
        return self.machine.run(f"printf %-4096s {text} | dd of={path} {BLOCK} iflag=fullblock oflag=direct "
                                f"conv={','.join(('notrunc', *flags))}", check=False)

    def assert_written(self, path, text, *flags):
        self.assertEqual((0, "", ""), self.write(path, text, *flags))

    def assert_fails(self, result):
        self.assertIn("Input/output error", result.errors)

    def test_fail_for_what_they_are_told_from_outside(self):
        path = "/dev/disks/outer"
        self.assert_written(path, "first", "fsync")
        self.outer.fail("read")
        self.assert_fails(self.read(path))
        self.outer.fail("write")
        self.assertEqual("first", self.read(path).output)
        self.assert_fails(self.write(path, "other"))
        self.outer.fail("flush")
        self.assert_written(path, "third")
        self.assert_fails(self.write(path, "third", "fsync"))
        self.outer.mend()
        self.assert_written(path, "third", "fsync")
        self.assertEqual("third", self.read(path).output)

    def test_hang_until_they_are_mended(self):
        self.assert_written("/dev/disks/outer", "alive")
        self.outer.hang("read")
        reading = self.machine.begin(f"dd if=/dev/disks/outer {BLOCK} iflag=direct | head --bytes=5")
        self.outer.await_held()
        self.assert_written("/dev/disks/outer", "alive")
        self.assertFalse(reading.has_ended())
        self.outer.mend()
        self.assertEqual("alive", reading.wait().output)

    def milliseconds(self, path):
        """How long a read takes."""
        return int(self.machine.run("begin=$(date +%s%3N);"
                                    f"dd if={path} {BLOCK} iflag=direct of=/dev/null; echo $(($(date +%s%3N) - begin))").output)

    def test_are_slow_from_outside_and_from_within(self):
        self.outer.slow_down(1.5)
        self.assertGreaterEqual(self.milliseconds("/dev/disks/outer"), 1500)
        self.mapped.delay(1500)
        self.assertGreaterEqual(self.milliseconds(self.mapped.path), 1500)

    def test_fail_for_everything_from_within(self):
        self.assert_written(self.mapped.path, "there")
        self.mapped.fail()
        # Nobody can have it made durable any more.
        self.assertEqual(b"there", self.inner.image.read_bytes()[:5])
        self.assert_fails(self.read(self.mapped.path))
        self.assert_fails(self.write(self.mapped.path, "other"))
        self.mapped.mend()
        self.assertEqual("there", self.read(self.mapped.path).output)

    def test_fail_for_writes_or_drop_them_from_within(self):
        self.assert_written(self.mapped.path, "first")
        self.mapped.flake("error_writes")
        self.assert_fails(self.write(self.mapped.path, "other"))
        self.assertEqual("first", self.read(self.mapped.path).output)
        self.mapped.flake("drop_writes")
        self.assert_written(self.mapped.path, "third")
        self.assertEqual("first", self.read(self.mapped.path).output)


if __name__ == "__main__":
    unittest.main()
