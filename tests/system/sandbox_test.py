# SPDX-License-Identifier: Apache-2.0
# The sandbox itself, from outside.

import os
import pathlib
import signal
import subprocess
import tempfile
import time
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
SANDBOX = TOP / "scripts/sandbox"
PATIENCE_SECONDS = 30


def sandbox(script, prefix=()):
    return subprocess.run([*prefix, SANDBOX, "sh", "-c", script], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=PATIENCE_SECONDS, check=False)


class Sandbox(unittest.TestCase):
    prefix = ()

    def assert_prints(self, expected, script):
        result = sandbox(script, self.prefix)
        self.assertEqual((0, "", expected), (result.returncode, result.stderr, result.stdout.strip()))

    def test_passes_on_the_status_of_its_command(self):
        for status in (0, 1, 7, 130):
            self.assertEqual(status, sandbox(f"exit {status}", self.prefix).returncode)

    def test_passes_on_input_and_working_directory(self):
        result = subprocess.run([*self.prefix, SANDBOX, "sh", "-c", "pwd; cat"], input="words", capture_output=True,
                                text=True, cwd="/usr", timeout=PATIENCE_SECONDS, check=False)
        self.assertEqual("/usr\nwords", result.stdout)

    def test_has_kelvanes_paths_and_nothing_in_them(self):
        self.assert_prints("", "cd /System/Library/Kelvane && ls /run/kelvane /var/lib/kelvane /etc/kelvane/entitlements.d "
                               "/TessalyInternal/Library/Kelvane /volumes . 2>/dev/null | grep -v : | grep .; true")
        self.assert_prints("ok", "cd /var/lib/kelvane && cd /etc/kelvane && cd /TessalyInternal/Library/Kelvane && "
                                 "touch /run/x /etc/x /var/lib/kelvane/x /System/Library/Kelvane/x && echo ok")

    def test_is_root_and_can_mount(self):
        self.assert_prints("0\ntmpfs", "id -u; mkdir /volumes/a; mount -t tmpfs x /volumes/a && "
                                       "df --output=fstype /volumes/a | tail -n 1")

    def test_sees_only_its_own_processes(self):
        self.assert_prints("1", "ls -d /proc/[0-9]* | grep -c '/1$'")
        self.assertLess(int(sandbox("ls -d /proc/[0-9]* | wc -l", self.prefix).stdout), 10)

    def test_leaves_nothing_behind(self):
        before = pathlib.Path("/proc/self/mountinfo").read_text()
        sandbox("mkdir /volumes/a; mount -t tmpfs x /volumes/a; touch /etc/kelvane-was-here /run/kelvane-was-here",
                self.prefix)
        self.assertEqual(before, pathlib.Path("/proc/self/mountinfo").read_text())
        for path in ("/etc/kelvane-was-here", "/run/kelvane-was-here"):
            self.assertFalse(os.path.exists(path), path)

    def assert_ends_with(self, number):
        """Whatever runs inside ends with the sandbox, also what went to the background."""
        reader, writer = os.pipe()
        with subprocess.Popen([*self.prefix, SANDBOX, "sh", "-c", "sleep 1000 & echo up; sleep 1000"],
                              stdin=subprocess.DEVNULL, stdout=writer, stderr=subprocess.DEVNULL) as process:
            os.close(writer)
            self.assertEqual(b"up\n", os.read(reader, 100))
            process.send_signal(number)
            # The end of the pipe: nobody inside holds it any more.
            self.assertEqual(b"", os.read(reader, 100))
        os.close(reader)
        self.assertNotEqual(0, process.returncode)

    def test_takes_everything_with_it_when_terminated(self):
        self.assert_ends_with(signal.SIGTERM)

    def test_takes_everything_with_it_when_killed(self):
        self.assert_ends_with(signal.SIGKILL)

    def test_takes_background_processes_with_it_when_its_command_ends(self):
        # Were "sleep" to live on, it would hold the pipe open, and this run would not return.
        result = sandbox("sleep 1000 & echo up", self.prefix)
        self.assertEqual("up\n", result.stdout)


if os.geteuid() == 0:
    class SandboxOfAUser(Sandbox):
        """The same without privileges."""
        prefix = ("setpriv", "--reuid=12345", "--regid=12345", "--clear-groups")

    class SandboxOfRoot(unittest.TestCase):
        def test_detaches_loop_devices(self):
            with tempfile.NamedTemporaryFile(suffix=".image") as image:
                os.truncate(image.name, 16 * 1024 * 1024)
                result = sandbox(f"mkfs.ext4 -q {image.name} && mkdir /volumes/a && "
                                 f"mount -o loop {image.name} /volumes/a && losetup -j {image.name}")
                self.assertEqual(0, result.returncode, result.stderr)
                self.assertIn(image.name, result.stdout)
                end = time.monotonic() + PATIENCE_SECONDS
                while self.attached(image.name):
                    self.assertLess(time.monotonic(), end)
                    time.sleep(0.01)

        @staticmethod
        def attached(image):
            return subprocess.run(["/usr/sbin/losetup", "-j", image], capture_output=True, text=True,
                                  check=True).stdout != ""


if __name__ == "__main__":
    unittest.main()
