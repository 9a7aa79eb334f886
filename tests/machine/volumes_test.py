# SPDX-License-Identifier: Apache-2.0
# Volumes of real disks, one of which hangs or fails, with a service's unit for each.

import json
import tempfile
import unittest

from caches import configuration
from disk import MIB, Disk
from machine import Machine

ENTITLEMENTS = '{ User = root; Entitlements = ("CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT"); }'
# Of a purge at the mildest urgency, beside all that a busy processor takes.
USUAL_SECONDS = 30
FILES = 16


def service(volume):
    return f"com.example.{volume}"


class Volumes(unittest.TestCase):
    """Each has files of a service of its own."""

    @classmethod
    def setUpClass(cls):
        directory = cls.enterClassContext(tempfile.TemporaryDirectory(prefix="kelvane-disks-"))
        cls.disks = {name: Disk(directory, name, mib=64, kind="ext4") for name in ("hanging", "failing", "well")}
        for disk in cls.disks.values():
            cls.addClassCleanup(disk.close)
        files = {f"/etc/kelvane/directory-cache/{service(name)}.plist":
                 configuration(service(name), f"/volumes/{name}/cache", user="root", others_may_write="YES")
                 for name in cls.disks}
        cls.machine = cls.enterClassContext(Machine(
            mounts={f"/volumes/{name}": disk for name, disk in cls.disks.items()},
            files={"/etc/kelvane/entitlements.d/caches.plist": ENTITLEMENTS, **files}))
        for disk in cls.disks.values():
            cls.addClassCleanup(disk.mend)
        for name in cls.disks:
            cls.machine.run(f"mkdir /volumes/{name}/cache && cd /volumes/{name}/cache && "
                            f"for file in $(seq {FILES}); do head --bytes=1M /dev/urandom >$file; done && "
                            f"systemctl start kelvane-directory-cache@{service(name)}.service")
        for name in cls.disks:
            cls.machine.run(f"until journalctl --unit=kelvane-directory-cache@{service(name)} | grep 'checked in'; "
                            "do sleep 0.2; done")

    def forget(self, volume):
        """What is known of the disk is on the disk alone."""
        self.machine.run(f"umount /volumes/{volume} && mount -t ext4 /dev/disks/{volume} /volumes/{volume}")

    def purge(self, volume):
        """How a purge of 4 MiB ends, and its seconds. A service that does not answer costs it two."""
        command = f"kelvanectl purge --json --single --urgency=1 --timeout=2 /volumes/{volume} 4M"
        report = json.loads(self.machine.run(command, check=False).output)
        return report["ending"], report["elapsed_seconds"]

    def purgeable(self, volume):
        """In MiB."""
        report = json.loads(self.machine.run(f"kelvanectl purgeable --json /volumes/{volume}").output)
        return report["volumes"][0]["total"] // MIB

    def test_are_purged_while_the_disk_of_another_hangs(self):
        hanging = self.disks["hanging"]
        self.forget("hanging")
        hanging.hang("read", "write", "flush")
        self.assertEqual("short", self.purge("hanging")[0])
        self.assertTrue(hanging.holds())
        self.assertGreaterEqual(self.purgeable("well"), 4)
        ending, seconds = self.purge("well")
        self.assertEqual("freed", ending)
        self.assertLess(seconds, USUAL_SECONDS)
        hanging.mend()
        self.assertEqual("freed", self.purge("hanging")[0])

    def test_are_purged_while_the_disk_of_another_fails(self):
        self.forget("failing")
        self.disks["failing"].fail("read", "write", "flush")
        self.assertEqual("short", self.purge("failing")[0])
        self.assertEqual("freed", self.purge("well")[0])


if __name__ == "__main__":
    unittest.main()
