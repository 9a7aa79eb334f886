# SPDX-License-Identifier: Apache-2.0
# Real purges: real daemon, real services, real volumes.

import unittest
from types import SimpleNamespace

from kelvane_system import MIB, DIRECTORY_CACHE, VOLUMES, SystemTest, executable, files_for_urgency, run


class PurgeOf:
    """What holds on every kind of volume."""

    def prepare(self, *services, **filling):
        """A volume, the daemon, and services that have checked in. Returns the volume and the services' directories."""
        volume = self.volume(kind=self.kind)
        self.start_daemon()
        directories = []
        for service in services:
            directories.append(self.fill(volume, service, **filling))
            self.start_service(service, directories[-1])
        return volume, directories

    def test_frees_what_was_asked(self):
        volume, (web, maps) = self.prepare("com.example.web", "com.example.maps")
        before = volume.available()
        status, report = self.purge(volume, "6M")
        self.assertEqual(0, status, report)
        self.assertGreaterEqual(volume.available() - before, 6 * MIB)
        self.assertEqual(before, report["available_before"])
        self.assertGreaterEqual(report["freed"], 6 * MIB)
        self.assertEqual("freed", report["ending"])
        self.assertLessEqual(files_for_urgency(web, 1) + files_for_urgency(maps, 1), 2)
        # Nothing goes that a higher urgency is needed for.
        self.assertEqual([4, 4], [files_for_urgency(web, 2), files_for_urgency(maps, 2)])

    def purge_and_count(self, volume, directory, mib, files):
        """A purge by which a service frees this many MiB, which are so many files of its directory, and tells so."""
        before, held = volume.available(), files_for_urgency(directory, 1)
        status, report = self.purge(volume, f"{mib}M", "--urgency=1", "--timeout=5")
        self.assertEqual((0, "freed"), (status, report["ending"]), report)
        gained = volume.available() - before
        self.assertGreaterEqual(gained, mib * MIB)
        # A file system may take a little for its own accounts; a file more makes good for that.
        self.assertIn(held - files_for_urgency(directory, 1), (files, files + 1))
        # It may also give some of its own beside the files, which is not the service's merit.
        for request in report["requests"]:
            if request["reported"] is not None:
                self.assertGreaterEqual(request["reported"], mib * MIB)
                self.assertLessEqual(request["reported"], gained)

    def test_frees_what_was_asked_time_after_time(self):
        volume = self.volume(kind=self.kind)
        self.assertEqual(volume.kind, run("findmnt", "--noheadings", "--output=FSTYPE", volume).stdout.strip())
        self.start_daemon()
        directory = self.fill(volume, "com.example.web", urgencies=(1,), mib=16)
        self.start_service("com.example.web", directory)
        for mib in (2, 3, 1, 2, 4):
            self.purge_and_count(volume, directory, mib, files=mib)

    def test_frees_what_was_asked_of_small_files(self):
        volume = self.volume(kind=self.kind)
        self.start_daemon()
        directory = self.fill(volume, "com.example.web", urgencies=(1,), mib=8, files_per_mib=64)
        self.start_service("com.example.web", directory)
        for _ in range(3):
            self.purge_and_count(volume, directory, 2, files=128)

    def test_tells_what_each_service_gave(self):
        volume, _ = self.prepare("com.example.web", "com.example.maps", urgencies=(1,), mib=8)
        # A service's own answer may overtake the result and stand in its place, and a pass may end before the second
        # service is asked; not time after time.
        reports = (self.purge(volume, "2M", "--urgency=1", "--timeout=1")[1] for _ in range(7))
        passes = ((request["urgency_limit"], one) for report in reports for request in report["requests"]
                  for one in request["passes"])
        limit, one = next((limit, one) for limit, one in passes if len(one["services"]) == 2)
        self.assertEqual((1, 1), (limit, one["urgency"]))
        self.assertEqual({"com.example.web", "com.example.maps"}, {service["id"] for service in one["services"]})
        self.assertGreaterEqual(max(service["reported"] for service in one["services"]), MIB)

    def test_raises_the_urgency_for_the_rest(self):
        volume, (web, maps) = self.prepare("com.example.web", "com.example.maps")
        before = volume.available()
        status, report = self.purge(volume, "12M", "--timeout=5")
        self.assertEqual(0, status, report)
        self.assertGreaterEqual(volume.available() - before, 12 * MIB)
        self.assertEqual([1, 2], [request["urgency_limit"] for request in report["requests"]][:2])
        self.assertEqual([0, 0], [files_for_urgency(web, 1), files_for_urgency(maps, 1)])
        self.assertGreater(files_for_urgency(web, 2) + files_for_urgency(maps, 2), 0, report)

    def test_says_when_services_have_no_more_to_give(self):
        volume, (web,) = self.prepare("com.example.web")
        status, report = self.purge(volume, "32M", "--urgency=1", "--timeout=5")
        self.assertEqual(1, status)
        self.assertEqual("short", report["ending"])
        self.assertGreaterEqual(report["freed"], 4 * MIB)
        self.assertEqual([0, 4], [files_for_urgency(web, 1), files_for_urgency(web, 2)])

    def test_touches_no_other_volume(self):
        other = self.volume("other")
        volume, _ = self.prepare("com.example.web")
        keeper = self.fill(other, "com.example.keeper", urgencies=(1,))
        self.start_service("com.example.keeper", keeper)
        status, _ = self.purge(volume, "3M", "--timeout=1")
        self.assertEqual(0, status)
        self.assertEqual(4, files_for_urgency(keeper, 1))

    def test_starts_described_services_on_demand(self):
        volume = self.volume(kind=self.kind)
        directory = self.fill(volume, "com.example.described")
        self.describe("com.example.described")
        self.start_daemon()
        starter = self.start_on_demand("com.example.described", directory)
        self.assertEqual("systemd-socket-activate", executable(starter.pid).name)
        status, report = self.purge(volume, "3M", "--urgency=1")
        self.assertEqual(0, status, report)
        self.assertEqual(DIRECTORY_CACHE.resolve(), executable(starter.pid))
        self.assertEqual([1, 4], [files_for_urgency(directory, 1), files_for_urgency(directory, 2)])

    def test_asks_services_of_both_manners(self):
        volume = self.volume(kind=self.kind)
        described = self.fill(volume, "com.example.described")
        self.describe("com.example.described")
        self.start_daemon()
        self.start_on_demand("com.example.described", described)
        web = self.fill(volume, "com.example.web")
        self.start_service("com.example.web", web)
        status, report = self.purge(volume, "8M", "--timeout=5")
        self.assertEqual(0, status, report)
        self.assertEqual([0, 0], [files_for_urgency(described, 1), files_for_urgency(web, 1)])


class PurgeOfTmpfs(PurgeOf, SystemTest):
    kind = "tmpfs"


class PurgeOfExt4(PurgeOf, SystemTest):
    kind = "ext4"


class PurgeOfXfs(PurgeOf, SystemTest):
    kind = "xfs"


class PurgeOfBtrfs(PurgeOf, SystemTest):
    kind = "btrfs"

    def test_takes_what_lies_on_a_subvolume_that_is_mounted_elsewhere(self):
        volume = self.volume(kind=self.kind)
        if volume.kind != self.kind:
            return
        self.start_daemon()
        part = SimpleNamespace(path=VOLUMES / "part")
        part.path.mkdir()
        source = run("findmnt", "--noheadings", "--output=SOURCE", volume).stdout.strip()
        volume.must_run("btrfs", "subvolume", "create", volume.path / "part")
        volume.must_run("mount", "-o", "subvol=part", source, part.path)
        self.addCleanup(run, "umount", "--lazy", part.path)
        directory = self.fill(part, "com.example.web")
        self.start_service("com.example.web", directory)
        status, report = self.purge(volume, "3M", "--urgency=1", "--timeout=5")
        self.assertEqual((0, "freed"), (status, report["ending"]), report)
        self.assertEqual(4, files_for_urgency(directory, 2))


if __name__ == "__main__":
    unittest.main()
