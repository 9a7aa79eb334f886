# SPDX-License-Identifier: Apache-2.0
# Purges over real files take what there is at urgency 1, whoever has it, and little more than was asked for.

import errno
import os
import shutil
import sys
import time
import unittest

from kelvane_system import AGED_FOR_URGENCY, CACHE_USER, MIB, SystemTest, files_for_urgency, run, until

BLOCK = 4096
# On each kind of volume and for each set of services.
PURGES = 12
AMOUNT = 64 * BLOCK
# Of the file system's own that a deletion may free or use besides, as directories shrink and journals turn, and as btrfs
# copies and splits nodes of 16 KiB for the name that each file gets before it goes.
OWN_ACCOUNTS = 32 * BLOCK

# Of a file that a process empties and fills again, all the time.
WRITTEN_BLOCKS = 8
WRITER = """
import sys
while True:
    with open(sys.argv[1], "wb") as file:
        for _ in range(int(sys.argv[2])):
            file.write(bytes(4096))
            file.flush()
"""


class Turns:
    # Elsewhere what the writer has given up may stay in use for a while, and is made good for.
    overwrites_in_place = True

    def fill(self, volume, service, blocks):
        """Gives a service so many files of a block. Returns its directory."""
        directory = volume.path / service
        directory.mkdir(exist_ok=True)
        used = time.time() - AGED_FOR_URGENCY[1]
        for number in range(blocks):
            file = directory / f"urgency1-{number}"
            file.write_bytes(bytes(BLOCK))
            os.utime(file, (used, used))
            shutil.chown(file, CACHE_USER)
        shutil.chown(directory, CACHE_USER)
        os.sync()
        return directory

    def prepare(self, *services, absent=0):
        self.data = self.volume(kind=self.kind)
        for number in range(absent):
            self.describe(f"com.example.absent{number}")
        self.start_daemon()
        self.directories = {service: self.fill(self.data, service, 0) for service in services}
        for service, directory in self.directories.items():
            self.start_service(service, directory)

    def purge_at_first_urgency(self, **blocks):
        """What one purge took of each service that has so many blocks, by its files."""
        for service, count in blocks.items():
            shutil.rmtree(self.directories[service])
            self.fill(self.data, service, count)
        before = self.data.available()
        status, report = self.purge(self.data, AMOUNT, "--urgency=1", "--timeout=60", "--single")
        self.assertEqual((0, "freed"), (status, report["ending"]), report)
        self.assertGreaterEqual(self.data.available() - before, AMOUNT)
        return {service: count - files_for_urgency(self.directories[service], 1) for service, count in blocks.items()}

    def assert_purges_take_little_more(self, **blocks):
        for _ in range(PURGES):
            taken = self.purge_at_first_urgency(**blocks)
            # At most a file a service, and what makes good for the file system's own accounts.
            self.assertLessEqual(sum(taken.values()) * BLOCK, AMOUNT + len(blocks) * BLOCK + OWN_ACCOUNTS, taken)

    def test_take_all_from_the_only_one_that_has_it(self):
        self.prepare("plenty", "nothing")
        self.assert_purges_take_little_more(plenty=128, nothing=0)

    def test_take_all_from_those_that_have_it(self):
        self.prepare("plenty", "more", "some", "nothing")
        self.assert_purges_take_little_more(plenty=96, more=128, some=5, nothing=0)

    def test_take_all_beside_services_that_are_described_and_not_there(self):
        self.prepare("plenty", "nothing", absent=8)
        self.assert_purges_take_little_more(plenty=128, nothing=0)

    def test_take_all_beside_a_fast_writer(self):
        self.prepare("plenty", "nothing")
        shutil.rmtree(self.directories["plenty"])
        self.fill(self.data, "plenty", 1024)
        writer = self.start("writer", sys.executable, "-c", WRITER, self.data.path / "written", WRITTEN_BLOCKS)
        until(lambda: (self.data.path / "written").exists(), "a writer")
        self.purge(self.data, AMOUNT, "--urgency=1", "--timeout=60", "--single")
        self.assertTrue(writer.is_running(), writer.log())
        # What the writer holds at the moments when the volume is measured may be counted either way.
        taken = (1024 - files_for_urgency(self.directories["plenty"], 1)) * BLOCK
        slack = WRITTEN_BLOCKS * BLOCK + OWN_ACCOUNTS
        self.assertGreaterEqual(taken, AMOUNT - slack)
        if self.overwrites_in_place:
            self.assertLessEqual(taken, AMOUNT + BLOCK + slack)


class TurnsOnTmpfs(Turns, SystemTest):
    kind = "tmpfs"


class TurnsOnExt4(Turns, SystemTest):
    kind = "ext4"

    def test_go_on_until_the_reserve_of_root_is_full_again(self):
        self.prepare("plenty")
        if self.data.kind != "ext4":
            return
        self.fill(self.data, "plenty", 1024)
        self.keep_for_root(2 * MIB)
        self.fill_by_root()
        self.assertEqual(0, self.data.available())
        status, report = self.purge(self.data, AMOUNT, "--urgency=1", "--timeout=60", "--single")
        self.assertEqual((0, "freed"), (status, report["ending"]), report)
        self.assertGreaterEqual(self.data.available(), AMOUNT)

    def keep_for_root(self, size):
        source = run("findmnt", "--noheadings", "--output=SOURCE", self.data.path).stdout.strip()
        block = os.statvfs(self.data.path).f_frsize
        result = run("tune2fs", "-r", size // block, source)
        self.assertEqual(0, result.returncode, result.stderr)

    def fill_by_root(self):
        """Until there is nothing left for root either."""
        with open(self.data.path / "filler", "wb", buffering=0) as file:
            try:
                while file.write(bytes(64 * 1024)):
                    os.fsync(file.fileno())
            except OSError as error:
                self.assertEqual(errno.ENOSPC, error.errno)


class TurnsOnXfs(Turns, SystemTest):
    kind = "xfs"


class TurnsOnBtrfs(Turns, SystemTest):
    kind = "btrfs"
    overwrites_in_place = False


if __name__ == "__main__":
    unittest.main()
