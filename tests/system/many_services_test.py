# SPDX-License-Identifier: Apache-2.0
# A thousand services in one process: they all check in, are all asked, and all go with it.

import os
import shutil
import signal
import unittest

from kelvane_system import BUILD, CACHE_USER, SystemTest, until
from peers import AS_CACHE_USER

MANY_SERVICES = BUILD / "tests/system/system_many_services"
NUMBER = 1000
SIZE = 16 * 1024


def descriptors(process):
    return len(os.listdir(f"/proc/{process.pid}/fd"))


class ThousandServices(SystemTest):
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

    def purge_all(self):
        # A pass ends early when who was asked first answers before the next is asked; the next pass asks the rest.
        return self.purge(self.data, f"{NUMBER * SIZE}", "--timeout=2")

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


if __name__ == "__main__":
    unittest.main()
