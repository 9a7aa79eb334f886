# SPDX-License-Identifier: Apache-2.0
# Sockets that are there before the programs that serve them: the daemon's own two, and those of described services.

import signal
import subprocess
import time
import unittest

from kelvane_system import CONTROL_SOCKET, DAEMON_SOCKET, DIRECTORY_CACHE, KELVANECTL, KELVANED, PATIENCE_SECONDS
from kelvane_system import SOCKETS, SystemTest, executable, files_for_urgency
from peers import HeldSockets

CONTROL = ("busctl", f"--address=unix:path={CONTROL_SOCKET}", "call", "com.tessaly.kelvane",
           "/com/tessaly/KelvanePlatform", "com.tessaly.KelvanePlatform")
DAILY = (*CONTROL, "runActivity", "s", "com.tessaly.Kelvane.daily")
EVENT = (*CONTROL, "postEvent", "sa{sv}", "com.tessaly.dispatch.vfs", "1", "_Flags", "t", "0")
CANCEL = (KELVANECTL, "cancel", "none")


class ActivationTest(SystemTest):
    def begin(self, command):
        process = subprocess.Popen([str(part) for part in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def assert_served(self, process):
        _, errors = process.communicate(timeout=2 * PATIENCE_SECONDS)
        self.assertEqual((0, ""), (process.returncode, errors), process.args)

    def described(self, mib=4):
        """A volume with a described service's files. Returns it and their directory."""
        volume = self.volume()
        self.describe("com.example.described")
        return volume, self.fill(volume, "com.example.described", mib=mib)

    def assert_frees(self, volume, size):
        status, report = self.purge(volume, size, "--urgency=1", "--timeout=10")
        self.assertEqual((0, "freed"), (status, report["ending"]), report)


class Daemon(ActivationTest):
    """Started by the first call on either of its sockets."""

    def start_when_called(self):
        daemon = self.start("kelvaned", "systemd-socket-activate", f"--listen={DAEMON_SOCKET}",
                            f"--listen={CONTROL_SOCKET}", KELVANED)
        self.await_listening(daemon, sockets=2)
        # As the daemon's own would be.
        DAEMON_SOCKET.chmod(0o666)
        self.assertEqual("systemd-socket-activate", executable(daemon.pid).name)
        return daemon

    def test_starts_when_a_client_calls(self):
        volume, directory = self.described()
        self.start_on_demand("com.example.described", directory)
        daemon = self.start_when_called()
        # The call that starts the daemon is served like any other.
        self.assert_frees(volume, "3M")
        self.assertEqual(KELVANED.resolve(), executable(daemon.pid))
        self.assert_served(self.begin(DAILY))

    def test_starts_when_the_service_manager_calls(self):
        volume, directory = self.described()
        self.start_on_demand("com.example.described", directory)
        daemon = self.start_when_called()
        self.assert_served(self.begin(DAILY))
        self.assertEqual(KELVANED.resolve(), executable(daemon.pid))
        self.assert_frees(volume, "3M")

    def test_starts_when_a_service_checks_in(self):
        volume = self.volume()
        directory = self.fill(volume, "com.example.web")
        daemon = self.start_when_called()
        self.start_service("com.example.web", directory)
        self.assertEqual(KELVANED.resolve(), executable(daemon.pid))
        self.assert_frees(volume, "3M")

    def test_serves_a_system_that_has_just_booted(self):
        volume, directory = self.described()
        self.start_on_demand("com.example.described", directory)
        daemon = self.start("kelvaned", "unshare", "--time", f"--monotonic=-{int(time.monotonic())}", "--fork",
                            "--kill-child", KELVANED)
        self.await_daemon(daemon)
        self.assert_served(self.begin(DAILY))
        self.assert_frees(volume, "3M")
        self.assertTrue(daemon.is_running(), daemon.log())


class Restart(ActivationTest):
    """Of a daemon whose sockets are held for it."""

    def setUp(self):
        super().setUp()
        self.held = HeldSockets(self, DAEMON_SOCKET, CONTROL_SOCKET)
        self.before = self.places()

    @staticmethod
    def places():
        return [path.stat().st_ino for path in (DAEMON_SOCKET, CONTROL_SOCKET)]

    def start_held(self):
        return self.held.start("kelvaned", KELVANED)

    def end_by(self, daemon, number, status):
        self.await_daemon(daemon)
        daemon.send(number)
        self.assertEqual(status, daemon.wait())
        self.assertEqual(self.before, self.places())

    def test_serves_what_was_asked_for_before_it_was_there(self):
        for _ in range(10):
            waiting = [self.begin(command) for command in (CANCEL, EVENT, CANCEL, EVENT)]
            self.held.await_caller()
            daemon = self.start_held()
            for process in waiting:
                self.assert_served(process)
            self.end_by(daemon, signal.SIGTERM, 0)

    def test_serves_what_was_asked_for_between_a_kill_and_the_next(self):
        for _ in range(5):
            daemon = self.start_held()
            self.end_by(daemon, signal.SIGKILL, -signal.SIGKILL)
            waiting = [self.begin(command) for command in (CANCEL, EVENT)]
            self.held.await_caller()
            following = self.start_held()
            for process in waiting:
                self.assert_served(process)
            self.end_by(following, signal.SIGTERM, 0)

    def test_frees_space_for_a_client_that_came_in_between(self):
        volume, directory = self.described()
        self.start_on_demand("com.example.described", directory)
        self.end_by(self.start_held(), signal.SIGTERM, 0)
        client = self.begin_purge(volume, "3M", "--urgency=1", "--timeout=10")
        self.held.await_caller()
        self.start_held()
        self.assert_served(client)
        self.assertEqual(1, files_for_urgency(directory, 1))

    def test_finds_the_services_again_that_had_checked_in(self):
        volume = self.volume()
        directory = self.fill(volume, "com.example.web")
        daemon = self.start_held()
        service = self.start_service("com.example.web", directory)
        self.end_by(daemon, signal.SIGTERM, 0)
        self.start_held()
        self.await_checkin(service, times=2)
        self.assert_frees(volume, "3M")


class DescribedService(ActivationTest):
    def test_is_started_again_after_it_has_ended(self):
        volume, directory = self.described(mib=6)
        self.start_daemon()
        for turn in range(1, 4):
            service = self.start_on_demand("com.example.described", directory)
            self.assertEqual("systemd-socket-activate", executable(service.pid).name)
            self.assert_frees(volume, "2M")
            self.assertEqual(DIRECTORY_CACHE.resolve(), executable(service.pid))
            self.assertEqual(6 - 2 * turn, files_for_urgency(directory, 1))
            service.send(signal.SIGTERM if turn % 2 else signal.SIGKILL)
            service.wait()

    def test_is_waited_for_while_it_is_started(self):
        """Its socket is held, so that the call which needs it connects before it is there."""
        volume, directory = self.described(mib=6)
        held = HeldSockets(self, SOCKETS / "com.example.described")
        self.start_daemon()
        for turn in range(1, 4):
            client = self.begin_purge(volume, "2M", "--urgency=1", "--timeout=20")
            held.await_caller()
            service = held.start("com.example.described", DIRECTORY_CACHE,
                                 self.configure("com.example.described", directory, "Named"))
            self.assert_served(client)
            self.assertEqual(6 - 2 * turn, files_for_urgency(directory, 1))
            service.send(signal.SIGTERM)
            self.assertEqual(0, service.wait())

    def test_that_cannot_be_started_costs_one_pass(self):
        volume, directory = self.described()
        daemon = self.start_daemon()
        broken = self.start("broken", "systemd-socket-activate", f"--listen={SOCKETS}/com.example.described",
                            "/bin/false")
        self.await_listening(broken)
        status, report = self.purge(volume, "2M", "--urgency=1", "--timeout=1")
        self.assertEqual((1, "no-services", 0), (status, report["ending"], report["freed"]))
        self.assertEqual(1, broken.wait())
        self.assertTrue(daemon.is_running())
        # Mended, it is started.
        self.start_on_demand("com.example.described", directory)
        self.assert_frees(volume, "2M")

    def test_is_not_missed_where_nobody_listens(self):
        volume, directory = self.described()
        web = self.fill(volume, "com.example.web")
        daemon = self.start_daemon()
        self.start_service("com.example.web", web)
        # Its share of the first request stays open.
        status, report = self.purge(volume, "3M", "--urgency=2", "--timeout=1")
        self.assertEqual((0, "freed"), (status, report["ending"]), report)
        self.assertEqual(4, files_for_urgency(directory, 1))
        self.assertTrue(daemon.is_running())


if __name__ == "__main__":
    unittest.main()
