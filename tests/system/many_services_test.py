# SPDX-License-Identifier: Apache-2.0
# A thousand services in one process: they all check in, are all asked, and all go with it.

import json
import os
import pathlib
import plistlib
import shutil
import signal
import unittest

from kelvane_system import BUILD, CACHE_USER, DAEMON_SOCKET, KELVANECTL, MIB, SystemTest, run, until
from peers import AS_CACHE_USER

MANY_SERVICES = BUILD / "tests/system/system_many_services"
NUMBER = 1000
SIZE = 16 * 1024
ALL = {f"com.example.number{number}": SIZE for number in range(NUMBER)}
RECORD = "KELVANE_RECENT_SERVICE_STATS"


def descriptors(process):
    return len(os.listdir(f"/proc/{process.pid}/fd"))


class ManyServicesTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.data = self.volume()
        self.directory = self.data.path / "many"
        self.directory.mkdir()
        shutil.chown(self.directory, CACHE_USER)
        self.daemon = self.start_daemon()
        self.idle_descriptors = self.settled_descriptors()

    def settled_descriptors(self):
        """Of the daemon, when those of the last client have gone."""
        previous = None
        while previous != (previous := descriptors(self.daemon)):
            self.await_daemon(self.daemon)
        return previous

    def await_descriptors(self):
        """Until those that the services cost it have returned. It may have opened a few for itself meanwhile."""
        until(lambda: descriptors(self.daemon) < self.idle_descriptors + NUMBER // 100, "the daemon's descriptors")

    def make_files(self):
        for number in range(NUMBER):
            file = self.directory / f"com.example.number{number}"
            file.write_bytes(os.urandom(SIZE))
            shutil.chown(file, CACHE_USER)

    def files(self):
        return len(os.listdir(self.directory))

    def start_all(self):
        self.make_files()
        process = self.start("many", *AS_CACHE_USER, MANY_SERVICES, self.directory)
        self.await_checkin(process, times=NUMBER)
        return process


class ThousandServices(ManyServicesTest):
    def purge_all(self):
        return self.purge(self.data, f"{NUMBER * SIZE}", "--urgency=1", "--timeout=60", "--single")

    def test_are_all_asked(self):
        self.start_all()
        before = self.data.available()
        status, report = self.purge_all()
        self.assertEqual((0, "freed"), (status, report["ending"]))
        self.assertEqual(0, self.files())
        self.assertEqual(NUMBER * SIZE, self.data.available() - before)

    def test_all_go_with_their_process(self):
        process = self.start_all()
        self.assertGreater(descriptors(self.daemon), NUMBER)
        process.send(signal.SIGKILL)
        process.wait()
        self.await_descriptors()
        self.assertTrue(self.daemon.is_running())
        # Nobody is left to be asked, and nobody is waited for.
        status, report = self.purge(self.data, f"{NUMBER * SIZE}", "--urgency=1", "--timeout=1")
        self.assertEqual((1, 0), (status, report["freed"]))
        self.assertEqual(NUMBER, self.files())
        for one in report["requests"][0]["passes"]:
            self.assertEqual(([], []), (one["services"], one["unanswered"]))

    def test_come_and_go_time_after_time(self):
        for _ in range(3):
            process = self.start_all()
            status, report = self.purge_all()
            self.assertEqual((0, "freed"), (status, report["ending"]))
            process.send(signal.SIGKILL)
            process.wait()
        self.await_descriptors()

    def test_may_die_while_they_are_asked(self):
        process = self.start_all()
        client = self.begin_purge(self.data, f"{NUMBER * SIZE}", "--single", "--urgency=1", "--timeout=2")
        until(lambda: self.files() < NUMBER, "the first share")
        process.send(signal.SIGKILL)
        client.communicate()
        self.assertIn(client.returncode, (0, 1))
        self.await_descriptors()
        web = self.fill(self.data, "com.example.web", urgencies=(1,))
        self.start_service("com.example.web", web)
        self.assertEqual(0, self.purge(self.data, "2M", "--urgency=1", "--timeout=5")[0])

    def test_check_in_again_when_the_daemon_is_back(self):
        process = self.start_all()
        self.daemon.send(signal.SIGKILL)
        self.daemon.wait()
        self.start_daemon()
        self.await_checkin(process, times=2 * NUMBER)
        status, report = self.purge_all()
        self.assertEqual((0, "freed"), (status, report["ending"]))
        self.assertEqual(0, self.files())


class Queries(ManyServicesTest):
    # Answers count that have come within 150 ms. A machine with other work may take longer, but not each time.
    ATTEMPTS = 5

    def query(self):
        """One request of a client: the total, and what each service could free."""
        result = run("busctl", f"--address=unix:path={DAEMON_SOCKET}", "--json=short", "call", "com.tessaly.kelvane",
                     "/com/tessaly/Kelvane", "com.tessaly.KelvaneClientProtocol", "clientPurgeableSpace", "a{sv}", "2",
                     "KELVANE_VOLUME", "s", str(self.data), "KELVANE_URGENCY", "i", "3")
        self.assertEqual(0, result.returncode, result.stderr)
        figures = {key: value["data"] for key, value in json.loads(result.stdout)["data"][0]["data"].items()}
        self.assertEqual(str(self.data), figures.pop("KELVANE_VOLUME"))
        return figures.pop("KELVANE_TOTAL_AVAILABLE"), figures

    def until_all_are_counted(self):
        until(lambda: self.query() == (NUMBER * SIZE, ALL), "everybody's answer")

    def told(self):
        """What kelvanectl says."""
        result = run(KELVANECTL, "purgeable", "--json", "--urgency=3", self.data)
        self.assertEqual(0, result.returncode, result.stderr)
        (volume,) = json.loads(result.stdout)["volumes"]
        return volume["total"], {service["id"]: service["bytes"] for service in volume["services"]}

    def asked(self):
        return self.daemon.log().count("^^^asking ")

    def test_count_all_of_them_the_first_time(self):
        self.start_all()
        for _ in range(self.ATTEMPTS):
            total, figures = self.query()
            self.assertEqual(sum(figures.values()), total)
            self.assertLessEqual(figures.items(), ALL.items())
            if len(figures) == NUMBER:
                break
            self.until_all_are_counted()
            self.assertEqual(0, run(KELVANECTL, "state", "unset", RECORD).returncode)
        self.assertEqual(ALL, figures)
        self.assertEqual((total, figures), self.query())
        self.assertEqual((total, figures), self.told())

    def test_ask_nobody_again_until_much_has_changed(self):
        log = pathlib.Path("/etc/kelvane/log.plist")
        log.write_bytes(plistlib.dumps({"Threshold": 5}))
        self.addCleanup(log.unlink)
        self.daemon.end()
        self.daemon = self.start_daemon()
        self.start_all()
        self.until_all_are_counted()
        asked, cached = self.asked(), self.daemon.log().count("using all cached info")
        self.assertGreaterEqual(asked, NUMBER)
        self.assertEqual((NUMBER * SIZE, ALL), self.query())
        self.assertEqual((NUMBER * SIZE, ALL), self.told())
        self.assertEqual(asked, self.asked())
        self.assertGreater(self.daemon.log().count("using all cached info"), cached)

        (self.data.path / "small").write_bytes(bytes(4 * MIB))
        self.assertEqual((NUMBER * SIZE, ALL), self.query())
        self.assertEqual(asked, self.asked())
        (self.data.path / "large").write_bytes(bytes(2 * MIB))
        self.query()
        until(lambda: self.asked() >= asked + NUMBER, "everybody's being asked again")
        self.until_all_are_counted()


if __name__ == "__main__":
    unittest.main()
