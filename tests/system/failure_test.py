# SPDX-License-Identifier: Apache-2.0
# Processes that die or hang while space is being freed.

import json
import os
import pathlib
import signal
import time
import unittest

from kelvane_system import KELVANED, MIB, SystemTest, files_for_urgency, hold, until

# Of a pass, where a test must not run into it.
LONG = "--timeout=300"


class Failures(SystemTest):
    def setUp(self):
        super().setUp()
        self.data = self.volume()
        self.daemon = self.start_daemon()
        self.web_directory = self.fill(self.data, "com.example.web")
        self.maps_directory = self.fill(self.data, "com.example.maps")
        self.web = self.start_service("com.example.web", self.web_directory)
        self.maps = self.start_service("com.example.maps", self.maps_directory)

    def begin_purge_that_waits_for_maps(self, *options):
        """Returns while a purge of 8 MiB is under way: one service has given all it has, the other holds its request."""
        hold(self.maps)
        client = self.begin_purge(self.data, "8M", "--urgency=1", *options)
        until(lambda: files_for_urgency(self.web_directory, 1) == 0, "the other service's share")
        self.assertIsNone(client.poll())
        return client

    def test_a_killed_service_does_not_stop_the_others(self):
        client = self.begin_purge_that_waits_for_maps("--timeout=2")
        self.maps.send(signal.SIGKILL)
        output, _ = client.communicate()
        report = json.loads(output)
        self.assertEqual(("short", 1), (report["ending"], client.returncode))
        self.assertGreaterEqual(report["freed"], 4 * MIB)
        self.assertTrue(self.daemon.is_running())

        # The daemon has forgotten it and goes on with who is left.
        status, report = self.purge(self.data, "2M", "--urgency=2", "--timeout=2")
        self.assertEqual(0, status, report)
        self.assertEqual(4, files_for_urgency(self.maps_directory, 1))

    def test_a_service_that_was_killed_can_come_back(self):
        self.maps.send(signal.SIGKILL)
        self.maps.wait()
        self.start_service("com.example.maps", self.maps_directory)
        status, report = self.purge(self.data, "8M", "--timeout=2")
        self.assertEqual(0, status, report)
        self.assertEqual(0, files_for_urgency(self.maps_directory, 1))

    def test_a_service_that_hangs_costs_one_pass_and_is_named(self):
        client = self.begin_purge_that_waits_for_maps("--timeout=1")
        output, _ = client.communicate()
        report = json.loads(output)
        self.assertEqual("short", report["ending"])
        (request,) = report["requests"]
        self.assertGreaterEqual(request["elapsed_seconds"], 1)
        # What timed out is noted beside the purge, so its name may come too late for the answer.
        for one in request["passes"]:
            self.assertIn(one["unanswered"], ([], ["com.example.maps"]))
        until(lambda: "timed out waiting for: " in self.daemon.log(), "a note of the time-out")
        self.assertIn("com.example.maps", self.daemon.log())

        # Once it goes on it is asked again: the other one has no more than 4 MiB.
        self.maps.send(signal.SIGCONT)
        status, report = self.purge(self.data, "6M", "--urgency=2", "--timeout=5")
        self.assertEqual(0, status, report)

    def test_sigterm_ends_the_daemon_at_once_with_status_0(self):
        client = self.begin_purge_that_waits_for_maps(LONG)
        begin = time.monotonic()
        self.daemon.send(signal.SIGTERM)
        self.assertEqual(0, self.daemon.wait())
        self.assertLess(time.monotonic() - begin, 20)
        _, errors = client.communicate()
        self.assertEqual(3, client.returncode)
        self.assertIn("the connection to the daemon was lost", errors)

    def test_services_check_in_again_when_the_daemon_is_back(self):
        self.daemon.send(signal.SIGKILL)
        self.assertEqual(-signal.SIGKILL, self.daemon.wait())
        self.start_daemon()
        self.await_checkin(self.web, times=2)
        self.await_checkin(self.maps, times=2)
        status, report = self.purge(self.data, "8M", "--timeout=2")
        self.assertEqual(0, status, report)

    def test_services_check_in_again_after_a_kill_in_mid_purge(self):
        client = self.begin_purge_that_waits_for_maps(LONG)
        self.daemon.send(signal.SIGKILL)
        client.wait()
        self.assertEqual(3, client.returncode)
        self.maps.send(signal.SIGCONT)
        self.start_daemon()
        self.await_checkin(self.web, times=2)
        self.await_checkin(self.maps, times=2)
        status, report = self.purge(self.data, "2M", "--timeout=5")
        self.assertEqual(0, status, report)

    def test_a_client_that_is_killed_leaves_the_daemon_serving(self):
        client = self.begin_purge_that_waits_for_maps("--timeout=1")
        client.kill()
        client.wait()
        status, report = self.purge(self.data, "1M", "--urgency=2", "--timeout=1")
        self.assertEqual(0, status, report)

    def test_purges_run_one_after_the_other(self):
        first = self.begin_purge_that_waits_for_maps("--timeout=2")
        second = self.begin_purge(self.data, "1M", "--single", "--urgency=2", "--timeout=2")
        first.wait()
        output, _ = second.communicate()
        self.assertEqual(1, first.returncode)
        self.assertEqual(0, second.returncode, output)


class Restart(SystemTest):
    def test_a_daemon_that_was_killed_leaves_nothing_in_the_way_of_the_next(self):
        for _ in range(3):
            daemon = self.start_daemon()
            self.assertTrue(pathlib.Path("/run/kelvane/notify/com.tessaly.kelvane.launched").exists())
            daemon.send(signal.SIGKILL)
            daemon.wait()

    def test_a_daemon_whose_standard_descriptors_are_closed_gives_their_numbers_to_nothing_else(self):
        daemon = self.start("kelvaned", "sh", "-c", f'exec "{KELVANED}" <&- >&- 2>&-')
        self.await_daemon(daemon)
        for number in range(3):
            self.assertEqual("/dev/null", os.readlink(f"/proc/{daemon.pid}/fd/{number}"))

    def test_there_is_only_one_daemon(self):
        daemon = self.start_daemon()
        second = self.start("second", KELVANED)
        # It has no clients, for the name is taken, and takes none from the first.
        until(lambda: second.log() != "" or not second.is_running(), "a word from the second daemon")
        second.end()
        self.await_daemon(daemon)


if __name__ == "__main__":
    unittest.main()
