# SPDX-License-Identifier: Apache-2.0
# What becomes of the daemon's state on a disk that does not answer (a frozen one, on which every write waits), where
# files may not be as long, and when its files are removed.

import pathlib
import resource
import shutil
import signal
import time
import unittest

from kelvane_system import CONTROL_SOCKET, DAEMON_SOCKET, KELVANECTL, KELVANED, LOGS, MIB, SystemTest, Volume, run, until

STATE = pathlib.Path("/var/lib/kelvane")
STORE = STATE / "preferences/com.tessaly.kelvane"
METRICS = pathlib.Path("/run/kelvane/metrics.prom")
KEY = "com.example.key"


def slots():
    return [(STORE / name).read_bytes() for name in ("slot-a", "slot-b")]


def metric(name):
    lines = METRICS.read_text().splitlines() if METRICS.exists() else []
    return dict(line.rsplit(" ", 1) for line in lines).get(name)


def state_of(thread):
    try:
        return (thread / "stat").read_text().rsplit(")", 1)[1].split()[0]
    except OSError:
        return "gone"


def states_of(daemon):
    """What its threads do: D is waiting where no signal gets one out, Z having ended."""
    return [state_of(thread) for thread in pathlib.Path(f"/proc/{daemon.pid}/task").iterdir()]


class FrozenState(SystemTest):
    def setUp(self):
        super().setUp()
        image = LOGS / "state.image"
        with open(image, "wb") as file:
            file.truncate(64 * MIB)
        Volume.must_run("mkfs.ext4", "-q", image)
        Volume.must_run("mount", "-o", "loop", image, STATE)
        # The other way round: processes that wait for it can't be ended before.
        self.addCleanup(run, "umount", "--lazy", STATE)
        self.addCleanup(self.end_processes)
        self.addCleanup(self.thaw)

    def end_processes(self):
        for process in self.processes:
            process.end()

    @staticmethod
    def freeze():
        Volume.must_run("fsfreeze", "--freeze", STATE)

    @staticmethod
    def thaw():
        return run("fsfreeze", "--unfreeze", STATE)

    def keep(self, value):
        """A daemon has stored the value and ended."""
        daemon = self.start_daemon()
        self.assertEqual(0, run(KELVANECTL, "state", "set", KEY, value).returncode)
        daemon.end()

    def stored(self):
        return run(KELVANECTL, "state", "get", KEY).stdout.strip()

    def test_holds_up_the_start_for_no_longer_than_is_stated(self):
        self.keep(1)
        kept = slots()
        self.freeze()
        begin = time.monotonic()
        daemon = self.start_daemon()
        self.assertGreaterEqual(time.monotonic() - begin, 9)
        self.assertEqual(1, daemon.log().count("Unable to open the preferences"), daemon.log())
        self.assertIn(f"opening {STORE}: the disk does not answer", daemon.log())
        until(lambda: metric("kelvane_preferences_available") == "0", "the metrics")

        # Without a suite what is set is lost, and answered all the same.
        self.assertEqual(0, run(KELVANECTL, "state", "set", KEY, "2").returncode)
        self.assertEqual("", self.stored())
        data = self.volume()
        self.assertEqual(0, run(KELVANECTL, "purgeable", data.path).returncode)
        until(lambda: metric("kelvane_silent_file_systems") == "1", "the thread that waits among the metrics")

        self.assertEqual(0, self.thaw().returncode)
        until(lambda: metric("kelvane_silent_file_systems") == "0", "its return")
        self.assertEqual(kept, slots())
        self.assertEqual("", self.stored(), "it is without until its next start")
        self.assertEqual("0", metric("kelvane_preferences_available"))
        daemon.end()
        self.start_daemon()
        self.assertEqual("1", self.stored())

    def test_holds_up_who_sets_something_and_nobody_else(self):
        data = self.volume()
        self.keep(1)
        daemon = self.start_daemon()
        self.freeze()
        setter = self.start("setter", KELVANECTL, "state", "set", KEY, "2")
        until(lambda: "D" in states_of(daemon), "a write that waits")
        self.assertEqual("2", self.stored())
        for _ in range(3):
            self.assertEqual(0, run(KELVANECTL, "purgeable", data.path).returncode)
        self.purge(data, "1M", "--single", "--urgency=1")
        self.assertTrue(setter.is_running())
        self.assertEqual(0, self.thaw().returncode)
        self.assertEqual(0, setter.wait())
        daemon.end()
        self.start_daemon()
        self.assertEqual("2", self.stored())

    def test_keeps_an_ended_daemon_which_does_not_keep_the_next_from_serving(self):
        self.keep(1)
        daemon = self.start_daemon()
        self.freeze()
        setter = self.start("setter", KELVANECTL, "state", "set", KEY, "2")
        until(lambda: "D" in states_of(daemon), "a write that waits")
        daemon.send(signal.SIGTERM)
        until(lambda: "Z" in states_of(daemon), "its end, but for that")
        # Where no service manager holds the sockets.
        for socket in (DAEMON_SOCKET, CONTROL_SOCKET):
            socket.unlink()
        second = self.start("second", KELVANED)
        self.await_daemon(second)
        self.assertTrue(setter.is_running(), "its connection is not closed before the first has ended")
        self.assertEqual(0, self.thaw().returncode)
        self.assertEqual(0, daemon.wait())
        self.assertNotEqual(0, setter.wait())
        second.end()
        self.start_daemon()
        self.assertIn(self.stored(), ("1", "2"), "it was not acknowledged")


class LimitedState(SystemTest):
    def test_is_not_kept_where_files_may_not_be_as_long_and_the_daemon_serves(self):
        data = self.volume()
        daemon = self.start("kelvaned", KELVANED,
                            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (MIB, MIB)))
        self.await_daemon(daemon)
        self.assertIn("writing slot-a: File too large", daemon.log())
        until(lambda: metric("kelvane_preferences_written") == "0", "the metrics")
        self.assertEqual(0, run(KELVANECTL, "purgeable", data.path).returncode)
        self.assertEqual([], list((STATE / "preferences").iterdir()))


class RemovedState(SystemTest):
    def test_is_written_anew_while_the_daemon_runs(self):
        daemon = self.start_daemon()
        self.assertEqual(0, run(KELVANECTL, "state", "set", "com.example.before", "1").returncode)
        shutil.rmtree(STATE)
        self.assertEqual(0, run(KELVANECTL, "state", "set", "com.example.after", "2").returncode)
        self.assertEqual(1, daemon.log().count("removed or replaced"), daemon.log())
        daemon.end()
        self.start_daemon()
        self.assertEqual(["1", "2"], [run(KELVANECTL, "state", "get", f"com.example.{key}").stdout.strip()
                                      for key in ("before", "after")])


if __name__ == "__main__":
    unittest.main()
