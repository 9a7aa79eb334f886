# SPDX-License-Identifier: Apache-2.0
# Volumes that fill up, without anybody asking for space, and the daily maintenance.

import os
import pathlib
import plistlib
import re
import signal
import time
import unittest

from kelvane_system import CONTROL_SOCKET, KELVANECTL, MIB, SystemTest, files_for_urgency, hold, run, until

CONFIGURATION = pathlib.Path("/etc/kelvane")
METRICS = pathlib.Path("/run/kelvane/metrics.prom")

# Of the volumes here; all others of this system are never low.
LOW = 20 * MIB
VERY_LOW = 4 * MIB


class LowDiskTest(SystemTest):
    def setUp(self):
        super().setUp()
        levels = {"LowPercent": 100, "LowBytes": LOW, "VeryLowPercent": 100, "VeryLowBytes": VERY_LOW}
        never = {"LowBytes": 0, "VeryLowBytes": 0}
        self.write_configuration("volumes.plist", {
            **never, "Volumes": {f"/volumes/{name}": levels for name in ("data", "hopeless", "deep/full")}})

    def write_configuration(self, name, contents):
        path = CONFIGURATION / name
        path.write_bytes(plistlib.dumps(contents))
        self.addCleanup(path.unlink)

    @staticmethod
    def use_up(path, available):
        """Leaves this many bytes available."""
        status = os.statvfs(path)
        with open(path / "filler", "ab") as file:
            size = status.f_bavail * status.f_frsize - available
            os.posix_fallocate(file.fileno(), file.tell(), size)

    @staticmethod
    def events():
        """How many events of each level the daemon has counted."""
        try:
            text = METRICS.read_text()
        except FileNotFoundError:
            text = ""
        return [int(match.group(1)) if (match := re.search(f'name="{name}"}} ([0-9]+)', text)) else 0
                for name in ("KL_LOWDISK_EVENT", "KL_VERYLOWDISK_EVENT")]

    def await_events(self, low, very_low=0):
        until(lambda: self.events() == [low, very_low], f"{low} and {very_low} events")


class Relief:
    """What holds on every kind of volume."""

    def prepare(self):
        """A volume with plenty of space and 8 MiB of files for each urgency, and the service that looks after them."""
        volume = self.volume(kind=self.kind, mib=128)
        daemon = self.start_daemon()
        directory = self.fill(volume, "com.example.web", urgencies=(1, 2, 3, 4), mib=8)
        self.start_service("com.example.web", directory)
        return daemon, volume, directory

    def test_comes_without_anybody_asking(self):
        daemon, volume, directory = self.prepare()
        self.assertGreater(volume.available(), LOW)
        self.use_up(volume.path, 10 * MIB)
        until(lambda: volume.available() >= LOW, "a volume above its mark")
        self.await_events(1)
        self.assertIn("caught VQ_LOWDISK", daemon.log())
        # Less than the daemon asks for, so that services are asked again, but never at the highest urgency.
        self.assertEqual([0, 0, 0, 8], [files_for_urgency(directory, urgency) for urgency in (1, 2, 3, 4)])

    def test_comes_at_the_lower_level_too(self):
        daemon, volume, _ = self.prepare()
        self.use_up(volume.path, MIB)
        until(lambda: volume.available() >= LOW, "a volume above its mark")
        self.await_events(0, 1)
        self.assertNotIn("caught VQ_LOWDISK", daemon.log())
        self.assertIn("caught VQ_VERYLOWDISK", daemon.log())

    def test_comes_again_when_the_volume_fills_again(self):
        _, volume, directory = self.prepare()
        self.use_up(volume.path, 10 * MIB)
        self.await_events(1)
        self.fill(volume, directory.name, urgencies=(1,), mib=12)
        self.use_up(volume.path, 10 * MIB)
        until(lambda: volume.available() >= LOW, "a volume above its mark")
        self.await_events(2)


class ReliefOfTmpfs(Relief, LowDiskTest):
    kind = "tmpfs"


class ReliefOfExt4(Relief, LowDiskTest):
    kind = "ext4"


class Hopelessness(LowDiskTest):
    """A volume with nothing to gain, though there are services."""

    def prepare(self):
        hopeless = self.volume("hopeless")
        data = self.volume("data", mib=128)
        self.start_daemon()
        directory = self.fill(data, "com.example.web", urgencies=(1, 2), mib=8)
        self.start_service("com.example.web", directory)
        self.use_up(hopeless.path, 10 * MIB)
        self.await_events(1)
        return hopeless, data

    def test_causes_no_storm(self):
        self.prepare()
        begin = time.monotonic()
        self.await_events(2)
        second = time.monotonic() - begin
        self.await_events(3)
        third = time.monotonic() - begin
        # Pauses of 5 and 10 seconds; the figures come up to a second late.
        self.assertGreater(second, 3.5)
        self.assertGreater(third - second, 8.5)

    def test_does_not_hold_up_the_relief_of_others(self):
        hopeless, data = self.prepare()
        self.await_events(2)
        begin = time.monotonic()
        self.use_up(data.path, 10 * MIB)
        until(lambda: data.available() >= LOW, "the other volume above its mark")
        # Well before the hopeless one is due again.
        self.assertLess(time.monotonic() - begin, 5)
        self.await_events(3)
        self.assertLess(hopeless.available(), LOW)

    def test_is_tried_again_when_an_event_is_posted_by_hand(self):
        self.prepare()
        self.await_events(2)
        self.post_event(0x204)
        self.await_events(3)
        self.post_event(0x200)
        self.await_events(3, 1)

    def post_event(self, flags):
        """Returns when it has been handled."""
        result = run("busctl", f"--address=unix:path={CONTROL_SOCKET}", "call", "com.tessaly.kelvane",
                     "/com/tessaly/KelvanePlatform", "com.tessaly.KelvanePlatform", "postEvent", "sa{sv}",
                     "com.tessaly.dispatch.vfs", "1", "_Flags", "t", str(flags))
        self.assertEqual(0, result.returncode, result.stderr)


class Mounts(LowDiskTest):
    def test_of_full_volumes_are_noticed_at_once(self):
        # A full volume comes to light when what covers it goes.
        full = self.volume("deep/full")
        self.use_up(full.path, MIB)
        run("mount", "-t", "tmpfs", "cover", full.path.parent)
        self.addCleanup(run, "umount", full.path.parent)
        daemon = self.start_daemon()
        self.start_service("com.example.web", self.fill(self.volume("data"), "com.example.web"))
        self.assertEqual([0, 0], self.events())
        run("umount", full.path.parent)
        until(lambda: "caught VQ_VERYLOWDISK" in daemon.log(), "an event")
        self.await_events(0, 1)


class DailyMaintenance(LowDiskTest):
    def rounds(self, daemon):
        """Runs the maintenance; for how many volumes the service was asked and answered."""
        before = daemon.log()
        result = run(KELVANECTL, "run-daily")
        self.assertEqual((0, "The daily maintenance is done.\n", ""),
                         (result.returncode, result.stdout, result.stderr))
        log = daemon.log().removeprefix(before)
        replies = log.count("proxy com.example.web replied")
        self.assertEqual(log.count("performPeriodicsWithInfo:]_block result"), replies)
        return replies

    def test_reaches_the_services_for_each_volume(self):
        self.write_configuration("log.plist", {"Threshold": 5})
        volume = self.volume()
        daemon = self.start_daemon()
        self.start_service("com.example.web", self.fill(volume, "com.example.web"))
        count = self.rounds(daemon)
        self.assertGreater(count, 0)
        self.volume("other")
        self.assertEqual(count + 1, self.rounds(daemon))

    def test_goes_on_when_the_command_is_interrupted(self):
        self.write_configuration("log.plist", {"Threshold": 5})
        volume = self.volume()
        daemon = self.start_daemon()
        service = self.start_service("com.example.web", self.fill(volume, "com.example.web"))
        hold(service)
        command = self.start("kelvanectl", KELVANECTL, "run-daily")
        until(lambda: "calling proxy for com.example.web" in daemon.log(), "a request")
        command.send(signal.SIGTERM)
        self.assertEqual(130, command.wait())
        service.send(signal.SIGCONT)
        until(lambda: "performPeriodicsWithInfo:]_block result" in daemon.log(), "a result")

    def test_needs_a_daemon(self):
        result = run(KELVANECTL, "run-daily", "--quiet")
        self.assertEqual((3, ""), (result.returncode, result.stdout))
        self.assertIn("the daemon does not run", result.stderr)


if __name__ == "__main__":
    unittest.main()
