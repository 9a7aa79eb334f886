# SPDX-License-Identifier: Apache-2.0
# Services in containers: in mount and process namespaces of their own, of which no path leads to the daemon's.

import os
import pathlib
import signal
import socket
import unittest

from kelvane_system import CACHE_USER, DAEMON_SOCKET, DIRECTORY_CACHE, KELVANED, MIB, SOCKETS, VOLUMES
from kelvane_system import SystemTest, files_for_urgency, until
from peers import GdbusService, HeldSockets

UNSHARE = ("unshare", "--mount", "--propagation=private", "--pid", "--fork", "--kill-child")
STAGE = VOLUMES / "stage"

# A container's start: an empty /run, with what its arguments name before "--". The daemon's socket is bound in, all
# else is copied.
ENTER = f"""
set -e
mount --no-mtab -t tmpfs -o mode=0755 tmpfs {STAGE}
while [ "$1" != -- ]; do
  if [ -S "$1" ]; then
    mkdir -p "{STAGE}/$(dirname "${{1#/run/}}")"
    : >"{STAGE}/${{1#/run/}}"
    mount --no-mtab --bind "$1" "{STAGE}/${{1#/run/}}"
  else
    cp "$1" {STAGE}
  fi
  shift
done
shift
mount --no-mtab --move {STAGE} /run
# Where a container may not see its own processes only, it sees all.
mount --no-mtab -t proc proc /proc 2>/dev/null || true
exec "$@"
"""


def container(*given):
    """What a command is put behind to run in one."""
    return (*UNSHARE, "sh", "-c", ENTER, "-", *given, "--")


def first_process(unshare):
    """The one that is started in the namespace, as seen here."""
    children = pathlib.Path(f"/proc/{unshare.pid}/task/{unshare.pid}/children")
    return int(until(lambda: children.read_text().split(), "a process in the container")[0])


class Container(SystemTest):
    def setUp(self):
        super().setUp()
        STAGE.mkdir()
        self.addCleanup(STAGE.rmdir)
        self.data = self.volume()
        self.directory = self.fill(self.data, "com.example.inside", urgencies=(1,), mib=8)

    def start_inside(self):
        """A service that checks in at the socket that is bound into its container."""
        configuration = self.configure("com.example.inside", self.directory, "CheckIn")
        service = self.start("com.example.inside", *container(DAEMON_SOCKET, configuration), DIRECTORY_CACHE,
                             f"/run/{configuration.name}")
        self.await_checkin(service)
        return service

    def assert_is_apart(self, pid):
        for kind in ("mnt", "pid"):
            self.assertNotEqual(os.readlink(f"/proc/self/ns/{kind}"), os.readlink(f"/proc/{pid}/ns/{kind}"))
        self.assertTrue(pathlib.Path("/run/kelvane/control").exists())
        # Its root is looked at by its namespace.
        self.assertFalse(pathlib.Path(f"/proc/{pid}/root/run/kelvane/control").exists())

    def assert_frees(self, mib):
        status, report = self.purge(self.data, f"{mib}M", "--urgency=1", "--timeout=5")
        self.assertEqual((0, "freed"), (status, report["ending"]), report)

    def test_frees_space_with_nothing_but_the_daemons_socket(self):
        self.start_daemon()
        service = self.start_inside()
        pid = first_process(service)
        self.assert_is_apart(pid)
        self.assertEqual(["com.tessaly.kelvane"], os.listdir(f"/proc/{pid}/root/run/kelvane/ipc"))
        self.assert_frees(3)
        self.assertEqual(5, files_for_urgency(self.directory, 1))

    def test_frees_space_with_nothing_but_a_connection(self):
        # It is who made the connection that the daemon knows.
        self.entitle("root", "CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT")
        self.start_daemon()
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
            connection.connect(str(DAEMON_SOCKET))
            service = GdbusService(self, "com.example.inside", self.directory, "descriptor", connection.fileno(),
                                   prefix=container(), pass_fds=(connection.fileno(),))
        self.assertEqual({"KELVANE_ID": "com.example.inside", "ANON": True}, service.check_in())
        self.assertIn("servicePing", service.names())
        pid = first_process(service.process)
        self.assert_is_apart(pid)
        self.assertEqual([], os.listdir(f"/proc/{pid}/root/run"))
        self.assert_frees(3)
        self.assertEqual(5, files_for_urgency(self.directory, 1))

    def test_is_reached_by_a_daemon_that_cannot_see_its_process(self):
        # Neither namespace holds the other: the service's process has no number where the daemon is.
        daemon = self.start("kelvaned", "unshare", "--pid", "--fork", "--kill-child", "--mount-proc", KELVANED)
        self.await_daemon(daemon)
        service = self.start_inside()
        self.assertNotEqual(os.readlink(f"/proc/{first_process(daemon)}/ns/pid"),
                            os.readlink(f"/proc/{first_process(service)}/ns/pid"))
        self.assert_frees(3)

    def test_is_reached_by_its_name_where_the_daemons_process_cannot_be_seen(self):
        self.describe("com.example.inside")
        self.start_daemon()
        held = HeldSockets(self, SOCKETS / "com.example.inside")
        # Told there who it is: here it has another number.
        shell = ("sh", "-c", "LISTEN_PID=$$ exec \"$@\"", "-")
        service = held.start("com.example.inside", *UNSHARE, "--mount-proc", *shell, DIRECTORY_CACHE,
                             self.configure("com.example.inside", self.directory, "Named"))
        self.assertNotEqual(os.readlink("/proc/self/ns/pid"), os.readlink(f"/proc/{first_process(service)}/ns/pid"))
        self.assert_frees(3)

    def test_is_entitled_by_its_user_and_not_by_where_it_is(self):
        self.entitle(CACHE_USER, "CLIENT_ENTITLEMENT")
        daemon = self.start_daemon()
        configuration = self.configure("com.example.inside", self.directory, "CheckIn")
        self.start("com.example.inside", *container(DAEMON_SOCKET, configuration), DIRECTORY_CACHE,
                   f"/run/{configuration.name}")
        until(lambda: "Connection is not entitled!" in daemon.log(), "the daemon's note")
        status, _ = self.purge(self.data, "1M", "--urgency=1", "--timeout=1")
        self.assertEqual(1, status)
        self.assertEqual(8, files_for_urgency(self.directory, 1))

    def test_may_end_and_be_started_anew(self):
        self.start_daemon()
        for turn in range(1, 4):
            service = self.start_inside()
            self.assert_frees(2)
            self.assertEqual(8 - 2 * turn, files_for_urgency(self.directory, 1))
            os.kill(first_process(service), signal.SIGKILL)
            service.wait()

    def test_finds_a_daemon_that_was_restarted_on_the_same_socket(self):
        # What is bound into a container is one socket, whoever listens on it.
        held = HeldSockets(self, DAEMON_SOCKET)
        daemon = held.start("kelvaned", KELVANED)
        self.await_daemon(daemon)
        service = self.start_inside()
        daemon.send(signal.SIGTERM)
        self.assertEqual(0, daemon.wait())
        held.start("kelvaned", KELVANED)
        self.await_checkin(service, times=2)
        before = self.data.available()
        self.assert_frees(3)
        self.assertGreaterEqual(self.data.available() - before, 3 * MIB)


if __name__ == "__main__":
    unittest.main()
