# SPDX-License-Identifier: Apache-2.0
# Clients of the running daemon: kelvanectl as a person and a script see it, and what clients may do.

import contextlib
import json
import os
import pty
import re
import signal
import subprocess
import unittest

from kelvane_system import DAEMON_SOCKET, DIRECTORY_CACHE, ENTITLEMENTS, HAS_SYSTEM_ROOT, KELVANECTL, KELVANED, MIB
from kelvane_system import TOP, SystemTest, files_for_urgency, hold, run, until


class Kelvanectl(SystemTest):
    def start_all(self):
        data = self.volume()
        self.start_daemon()
        self.directory = self.fill(data, "com.example.web")
        self.service = self.start_service("com.example.web", self.directory)
        return data

    def test_tells_people_what_came_of_it(self):
        data = self.start_all()
        result = run(KELVANECTL, "purge", data, "2M")
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        self.assertIn(f"Freeing 2.0 MiB on {data}", result.stdout)
        self.assertIn("Up to urgency 1: 2.0 MiB asked, 2.0 MiB freed", result.stdout)
        self.assertIn("Freed 2.0 MiB of 2.0 MiB", result.stdout)

    def test_tells_programs_in_json(self):
        data = self.start_all()
        result = run(KELVANECTL, "purge", "--json", "--token=mine", data, "2M")
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        report = json.loads(result.stdout)
        self.assertEqual((str(data), "mine", "freed", None, 2 * MIB),
                         tuple(report[key] for key in ("volume", "token", "ending", "error", "asked")))
        self.assertEqual(report["freed"], report["available_after"] - report["available_before"])

    def test_can_be_quiet(self):
        data = self.start_all()
        result = run(KELVANECTL, "purge", "--quiet", data, "1M")
        self.assertEqual((0, "", ""), (result.returncode, result.stdout, result.stderr))

    def test_takes_any_way_to_a_mount_point(self):
        data = self.start_all()
        link = data.path.parent / "link"
        link.symlink_to(data.path)
        self.addCleanup(link.unlink)
        self.assertEqual(0, run(KELVANECTL, "purge", f"{link}/", "1M").returncode)
        result = run(KELVANECTL, "purge", ".", "1M", cwd=data.path)
        self.assertEqual(0, result.returncode, result.stderr)

    def test_sends_one_request_when_single(self):
        data = self.start_all()
        _, report = self.purge(data, "2M", "--single", "--urgency=2", "--timeout=1")
        self.assertEqual([2], [request["urgency_limit"] for request in report["requests"]])

    @contextlib.contextmanager
    def purge_under_way(self):
        """One whose service holds the request: its volume, the client, and what that has shown at a terminal."""
        data = self.start_all()
        hold(self.service)
        ours, theirs = pty.openpty()
        self.addCleanup(os.close, ours)
        command = [str(part) for part in (KELVANECTL, "purge", data, "2M", "--urgency=1", "--timeout=300")]
        with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=theirs) as client:
            os.close(theirs)
            shown = b""
            while b"]    0 %  0 B of 2.0 MiB" not in shown:
                shown += os.read(ours, 4096)
            yield data, client, shown

    def test_shows_its_progress_on_a_terminal_only(self):
        with self.purge_under_way() as (_, client, shown):
            self.service.send(signal.SIGCONT)
            output, _ = client.communicate()
            self.assertEqual(0, client.returncode)
        self.assertNotIn(b"%", output)
        self.assertIn(b"\r[---", shown)

    def test_says_when_its_report_is_not_taken(self):
        data = self.start_all()
        with open("/dev/full", "w", encoding="ascii") as full:
            result = subprocess.run([str(KELVANECTL), "purge", str(data), "1M"], stdin=subprocess.DEVNULL, stdout=full,
                                    stderr=subprocess.PIPE, text=True, check=False)
        self.assertEqual(7, result.returncode)
        self.assertIn("cannot write to standard output: No space left on device", result.stderr)

    def test_writes_to_no_connection_when_standard_output_is_closed(self):
        data = self.start_all()
        command = f'exec "{KELVANECTL}" purge "{data}" 1M >&-'
        result = run("sh", "-c", command)
        self.assertEqual(7, result.returncode)
        self.assertIn("cannot write to standard output: Bad file descriptor", result.stderr)

    def test_says_at_once_that_nobody_is_registered(self):
        data = self.volume()
        self.start_daemon()
        result = run(KELVANECTL, "purge", data, "1M")
        self.assertEqual(1, result.returncode)
        self.assertIn("there is no service to ask", result.stderr)
        _, report = self.purge(data, "1M")
        self.assertEqual(("no-services", 1), (report["ending"], len(report["requests"])))

    def at_terminal(self, answer, *options):
        """A purge that may go up to urgency 4, with files for that alone, by somebody who types an answer at the first
        question. The exit status, and what was shown."""
        data = self.volume()
        self.start_daemon()
        self.directory = self.fill(data, "com.example.web", urgencies=(4,))
        self.start_service("com.example.web", self.directory)
        ours, theirs = pty.openpty()
        self.addCleanup(os.close, ours)
        command = [str(part) for part in (KELVANECTL, "purge", "--single", "--urgency=4", "--timeout=1", *options, data,
                                          "1M")]
        with subprocess.Popen(command, stdin=theirs, stdout=subprocess.PIPE, stderr=theirs) as client:
            os.close(theirs)
            shown = b""
            if answer is not None:
                while b"[y/N] " not in shown:
                    shown += os.read(ours, 4096)
                os.write(ours, answer)
            client.communicate()
        with contextlib.suppress(OSError):
            # Until the other end is closed, with EIO.
            while True:
                shown += os.read(ours, 4096)
        return client.returncode, shown.decode()

    def test_asks_for_nothing_at_urgency_4_when_somebody_at_the_terminal_declines(self):
        status, shown = self.at_terminal(b"\n")
        self.assertEqual(1, status)
        self.assertIn("nothing was asked at urgency 4", shown)
        self.assertEqual(4, files_for_urgency(self.directory, 4))

    def test_goes_up_to_urgency_4_when_somebody_at_the_terminal_agrees(self):
        status, _ = self.at_terminal(b"y\n")
        self.assertEqual(0, status)
        self.assertEqual(3, files_for_urgency(self.directory, 4))

    def test_asks_nobody_who_has_agreed_beforehand(self):
        status, shown = self.at_terminal(None, "--yes")
        self.assertEqual(0, status)
        self.assertNotIn("[y/N]", shown)

    def test_counts_nothing_that_another_volume_in_its_place_has(self):
        with self.purge_under_way() as (data, client, _):
            data.must_run("mount", "-t", "tmpfs", "-o", "size=200M", "tmpfs", data.path)
            self.addCleanup(run, "umount", "--lazy", data.path)
            self.service.send(signal.SIGCONT)
            output, _ = client.communicate()
            self.assertEqual(1, client.returncode, output)

    def interrupt(self, number):
        """In a purge that one service has done its share of, and the other holds."""
        data = self.start_all()
        held = self.start_service("com.example.maps", self.fill(data, "com.example.maps"))
        hold(held)
        client = self.begin_purge(data, "8M", "--urgency=1", "--timeout=300")
        until(lambda: files_for_urgency(self.directory, 1) == 0, "the first share")
        client.send_signal(number)
        output, errors = client.communicate()
        self.assertEqual(130, client.returncode)
        self.assertIn("interrupted", errors)
        report = json.loads(output)
        self.assertEqual("interrupted", report["ending"])
        self.assertGreaterEqual(report["freed"], 4 * MIB)

    def test_ends_with_ctrl_c_and_says_what_was_gained(self):
        self.interrupt(signal.SIGINT)

    def test_ends_with_sigterm_and_says_what_was_gained(self):
        self.interrupt(signal.SIGTERM)

    def test_acknowledges_a_cancel(self):
        self.start_daemon()
        result = run(KELVANECTL, "cancel", "some-token")
        self.assertEqual(0, result.returncode)
        self.assertIn("taken note. A purge that is under way goes on", result.stdout)

    def test_has_a_page_about_every_option(self):
        page = (TOP / "docs/kelvanectl.md").read_text()
        for command in ("purge", "cancel"):
            options = re.findall(r"--[a-z]+", run(KELVANECTL, command, "--help").stdout)
            self.assertIn("--quiet", options)
            for option in options:
                if option != "--help":
                    self.assertIn(f"`{option}", page)

    def test_has_a_status_for_a_wrong_command_line(self):
        result = run(KELVANECTL, "purge", "/volumes", "lots")
        self.assertEqual((2, ""), (result.returncode, result.stdout))
        self.assertIn("lots", result.stderr)

    def test_has_a_status_for_no_daemon(self):
        data = self.volume()
        for command in (("purge", data, "1M"), ("cancel", "some-token")):
            result = run(KELVANECTL, *command)
            self.assertEqual(3, result.returncode)
            self.assertIn("the daemon does not run", result.stderr)

    def test_has_a_status_for_no_volume(self):
        self.start_daemon()
        data = self.volume()
        inside = data.path / "inside"
        inside.mkdir()
        for path, words in (("/nowhere", "No such file"), (inside, f"the one above it is {data}"), ("/proc", "/proc")):
            result = run(KELVANECTL, "purge", path, "1M")
            self.assertEqual(5, result.returncode, path)
            self.assertIn("no such volume", result.stderr)
            self.assertIn(words, result.stderr)
        report = json.loads(run(KELVANECTL, "purge", "--json", "/nowhere", "1M").stdout)
        self.assertEqual("no-volume", report["ending"])


class Entitlements(SystemTest):
    """What a client may do goes by who it is."""

    def setUp(self):
        super().setUp()
        self.user, self.prefix = self.plain_user()
        if not HAS_SYSTEM_ROOT:
            self.entitle(self.user)

    def purge_as_user(self):
        data = self.volume()
        directory = self.fill(data, "com.example.web")
        daemon = self.start("kelvaned", KELVANED)
        until(DAEMON_SOCKET.is_socket, "the daemon's socket")
        result = run(*self.prefix, KELVANECTL, "purge", "--urgency=1", "--timeout=1", data, "1M")
        self.assertTrue(daemon.is_running())
        self.assertEqual(4, files_for_urgency(directory, 1))
        return result

    def test_without_any_the_daemon_does_not_talk(self):
        result = self.purge_as_user()
        self.assertEqual(4, result.returncode, result.stderr)
        self.assertIn("CLIENT_ENTITLEMENT", result.stderr)

    def test_with_that_of_a_client_alone_a_purge_is_refused(self):
        self.entitle(self.user, "CLIENT_ENTITLEMENT")
        result = self.purge_as_user()
        self.assertEqual(4, result.returncode, result.stderr)
        self.assertIn("PURGE_ENTITLEMENT", result.stderr)

    def test_with_both_a_purge_is_served(self):
        self.entitle(self.user, "CLIENT_ENTITLEMENT", "PURGE_ENTITLEMENT")
        result = self.purge_as_user()
        # No service is there to give anything.
        self.assertEqual(1, result.returncode, result.stderr)

    def test_a_service_without_its_own_is_never_answered(self):
        self.entitle("root", "CLIENT_ENTITLEMENT", "PURGE_ENTITLEMENT")
        for file in ENTITLEMENTS.glob("test-nobody.plist"):
            file.write_text("{ User = nobody; Entitlements = (CLIENT_ENTITLEMENT); }")
        data = self.volume()
        directory = self.fill(data, "com.example.web")
        daemon = self.start_daemon()
        self.start("com.example.web", DIRECTORY_CACHE, self.configure("com.example.web", directory, "CheckIn"))
        until(lambda: "Connection is not entitled!" in daemon.log(), "the daemon's note")
        self.assertEqual(1, self.purge(data, "1M", "--urgency=1", "--timeout=1")[0])
        self.assertEqual(4, files_for_urgency(directory, 1))


if __name__ == "__main__":
    unittest.main()
