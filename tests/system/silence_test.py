# SPDX-License-Identifier: Apache-2.0
# What a volume that does not answer leaves to all others: everything, but for two seconds.

import json
import pathlib
import plistlib
import re
import signal
import time
import unittest

from kelvane_system import DAEMON_SOCKET, KELVANECTL, MIB, SystemTest, hold, run, until

SERVICE = "com.example.web"
HANGING = "hanging"
CONFIGURATION = pathlib.Path("/etc/kelvane")
METRICS = pathlib.Path("/run/kelvane/metrics.prom")
LOW = 20 * MIB
# Two seconds for the one hang, and as much again for a busy machine: who waits for it twice does not make it.
ONCE = 4


class SilenceTest(SystemTest):
    def setUp(self):
        super().setUp()
        names = ("one", "two", HANGING)
        levels = {"LowPercent": 100, "LowBytes": LOW, "VeryLowBytes": 0}
        self.write_configuration("volumes.plist", {
            "LowBytes": 0, "VeryLowBytes": 0, "Volumes": {f"/volumes/{name}": levels for name in names}})
        self.write_configuration("log.plist", {"Threshold": 5})

    def write_configuration(self, name, contents):
        path = CONFIGURATION / name
        path.write_bytes(plistlib.dumps(contents))
        self.addCleanup(path.unlink, missing_ok=True)

    def mount(self, place):
        """Three volumes, none of them low: two that answer, and in this place among them one that may hang."""
        names = ["one", "two"]
        names.insert(place, HANGING)
        volumes = {name: self.hanging_volume(name) if name == HANGING else self.volume(name, mib=64) for name in names}
        hanging = volumes[HANGING]
        hanging.set_size(64 * MIB)
        hanging.set_free(60 * MIB)
        return volumes["one"], volumes["two"], hanging

    def serve(self, *volumes):
        """The daemon, and a service for each of the volumes, with 12 MiB that may go at once."""
        daemon = self.start_daemon()
        services = [self.start_service(f"{SERVICE}.{volume.path.name}",
                                       self.fill(volume, f"{SERVICE}.{volume.path.name}", urgencies=(1,), mib=12))
                    for volume in volumes]
        return daemon, services

    def query(self, volume):
        """The report, and the seconds that it took."""
        begin = time.monotonic()
        result = run(KELVANECTL, "purgeable", "--json", volume.path)
        return json.loads(result.stdout), time.monotonic() - begin

    def request_purge(self, name, volume):
        """Of 10 MiB in one pass of 5 seconds, by a client that asks the volume nothing: it could not end while that
        hangs."""
        return self.start(name, "busctl", f"--address=unix:path={DAEMON_SOCKET}", "--timeout=30", "--json=short", "call",
                          "com.tessaly.kelvane", "/com/tessaly/Kelvane", "com.tessaly.KelvaneClientProtocol",
                          "clientPurge", "a{sv}", "4", "KELVANE_VOLUME", "s", volume.path, "KELVANE_AMOUNT", "t",
                          10 * MIB, "KELVANE_URGENCY", "i", "1", "KELVANE_PURGE_TIMEOUT", "y", "5")

    @staticmethod
    def result(client):
        """The dictionary that a client was answered with, when it has ended."""
        client.wait()
        (answer,) = json.loads(client.log())["data"]
        return {key: value["data"] for key, value in answer["data"].items()}

    @staticmethod
    def silent():
        """How many file systems are silent, by the metrics."""
        text = METRICS.read_text() if METRICS.exists() else ""
        found = re.search(r"^kelvane_silent_file_systems ([0-9]+)", text, re.MULTILINE)
        return int(found.group(1)) if found else 0

    @staticmethod
    def use_up(volume, available):
        run("fallocate", "--length", volume.available() - available, volume.path / "filler")

    def assert_usual_life(self, volume, hanging):
        """Nobody waits any more, nor asks the volume that hangs."""
        asked = hanging.received("statfs")
        for _ in range(3):
            report, seconds = self.query(volume)
            self.assertEqual("answered", report["ending"])
            self.assertLess(seconds, 2)
        begin = time.monotonic()
        self.assertEqual(0, run(KELVANECTL, "state", "set", "key", "value").returncode)
        self.assertEqual(0, run(KELVANECTL, "state", "get", "key").returncode)
        self.assertLess(time.monotonic() - begin, 2)
        self.assertEqual(asked, hanging.received("statfs"))
        self.assertEqual(1, hanging.held("statfs"))
        until(lambda: self.silent() == 1, "a file system that is told to be silent")


class InAnyPlace:
    """What holds wherever the volume that hangs is among the others, in the order of mounting."""

    def test_in_the_record_delays_a_query_of_another_once(self):
        one, _, hanging = self.mount(self.place)
        self.serve(one)
        # It is remembered from now on, and asked whenever the record is.
        self.assertEqual("answered", self.query(hanging)[0]["ending"])
        hanging.hang("statfs")
        report, seconds = self.query(one)
        self.assertEqual("answered", report["ending"])
        self.assertEqual(12 * MIB, report["volumes"][0]["total"])
        self.assertLess(seconds, ONCE)
        hanging.await_held("statfs")
        self.assert_usual_life(one, hanging)
        hanging.resume()
        until(lambda: self.silent() == 0, "an answer")

    def test_before_the_first_look_delays_no_relief(self):
        one, two, hanging = self.mount(self.place)
        hanging.set_free(MIB)
        hanging.hang("statfs")
        self.serve(one, two)
        hanging.await_held("statfs")
        begin = time.monotonic()
        self.use_up(one, 10 * MIB)
        self.use_up(two, 10 * MIB)
        until(lambda: one.available() >= LOW and two.available() >= LOW, "relief of the volumes that answer")
        # Passes of 2, 4 and 6 seconds for each of the two at most.
        self.assertLess(time.monotonic() - begin, 2 * (2 + 4 + 6) + ONCE)
        self.assert_usual_life(one, hanging)

    def test_delays_the_daily_round_of_the_others_once(self):
        one, _, hanging = self.mount(self.place)
        daemon, _ = self.serve(one)
        self.assertEqual(0, run(KELVANECTL, "run-daily").returncode)
        usual = daemon.log().count("performPeriodicsWithInfo:]_block result")
        self.assertGreaterEqual(usual, 3)
        hanging.hang("statfs")
        begin = time.monotonic()
        self.assertEqual(0, run(KELVANECTL, "run-daily").returncode)
        self.assertLess(time.monotonic() - begin, ONCE)
        self.assertEqual(2 * usual - 1, daemon.log().count("performPeriodicsWithInfo:]_block result"))
        self.assert_usual_life(one, hanging)


class HangingFirst(InAnyPlace, SilenceTest):
    place = 0


class HangingMiddle(InAnyPlace, SilenceTest):
    place = 1


class HangingLast(InAnyPlace, SilenceTest):
    place = 2


class HangingMeanwhile(SilenceTest):
    def test_while_an_event_is_handled_delays_the_others_once(self):
        # Low when the daemon starts, so that one event is for all three, the emptiest first.
        one, two, hanging = self.mount(1)
        hanging.set_free(2 * MIB)
        directories = [self.fill(volume, f"{SERVICE}.{volume.path.name}", urgencies=(1,), mib=12)
                       for volume in (one, two)]
        self.use_up(one, MIB)
        self.use_up(two, 12 * MIB)
        daemon = self.start_daemon()
        service, _ = [self.start_service(directory.name, directory) for directory in directories]
        hold(service)
        self.await_request(daemon)
        hanging.hang("statfs")
        service.send(signal.SIGCONT)
        until(lambda: two.available() >= LOW, "relief of the last volume")
        self.assertEqual(1, daemon.log().count("caught VQ_"))
        self.assert_usual_life(two, hanging)

    def test_in_a_pass_has_a_purge_end_with_nothing_that_was_not_seen(self):
        one, _, hanging = self.mount(0)
        daemon, (service,) = self.serve(one)
        hold(service)
        client = self.request_purge("client", hanging)
        self.await_request(daemon)
        hanging.hang("statfs")
        hanging.set_free(64 * MIB)
        service.send(signal.SIGCONT)
        result = self.result(client)
        self.assertEqual(0, result["KELVANE_AMOUNT"])
        self.assertEqual((60 * MIB, 60 * MIB), (result["KELVANE_FREESPACE_BEGIN"], result["KELVANE_FREESPACE_END"]))
        self.assert_usual_life(one, hanging)

    def test_before_its_turn_leaves_a_purge_without_a_pass(self):
        one, _, hanging = self.mount(0)
        # So far from being low that nobody else asks it for minutes.
        hanging.set_size(1024 * 1024 * MIB)
        hanging.set_free(512 * 1024 * MIB)
        daemon, (service,) = self.serve(one)
        hold(service)
        first = self.request_purge("first", one)
        self.await_request(daemon)
        second = self.request_purge("second", hanging)
        hanging.hang("statfs")
        service.send(signal.SIGCONT)
        self.assertEqual(10 * MIB, self.result(first)["KELVANE_AMOUNT"])
        result = self.result(second)
        self.assertEqual(0, result["KELVANE_AMOUNT"])
        self.assertFalse([key for key in result if "FREESPACE" in key or "INFO" in key], result)
        self.assertIn(f"free space of {hanging.path} is not known", daemon.log())
        self.assert_usual_life(one, hanging)

    def await_request(self, daemon):
        until(lambda: f"bytes from {SERVICE}.one at urgency" in daemon.log(), "a request to the service")


if __name__ == "__main__":
    unittest.main()
