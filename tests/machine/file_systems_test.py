# SPDX-License-Identifier: Apache-2.0
# The daemon's state on every file system, whose disk or power fails under load, again and again.

import unittest

from durability import DurabilityTest

LIVES = 10


class FileSystem:
    kind = None

    def test_keeps_what_was_acknowledged_when_the_power_fails(self):
        self.live_and_die(self.kind, LIVES)

    def test_keeps_what_was_acknowledged_when_the_disk_fails(self):
        self.fail_and_die(self.kind, LIVES)

    def test_is_left_alone_while_it_cannot_be_read(self):
        self.start_unreadable(self.kind)


class Ext4(FileSystem, DurabilityTest):
    kind = "ext4"


class Xfs(FileSystem, DurabilityTest):
    kind = "xfs"


class Btrfs(FileSystem, DurabilityTest):
    kind = "btrfs"


class F2fs(FileSystem, DurabilityTest):
    kind = "f2fs"


if __name__ == "__main__":
    unittest.main()
