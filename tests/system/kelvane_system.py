# SPDX-License-Identifier: Apache-2.0
# A small Kelvane of real processes, made anew for each test. Runs in the sandbox, as its root.

import functools
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time
import unittest

from hanging_volume import HangingVolume

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["KELVANE_BUILD"])
KELVANED = BUILD / "daemon/kelvaned"
KELVANECTL = BUILD / "tools/kelvanectl/kelvanectl"
DIRECTORY_CACHE = BUILD / "services/directory-cache/kelvane-directory-cache"

SOCKETS = pathlib.Path("/run/kelvane/ipc")
DAEMON_SOCKET = SOCKETS / "com.tessaly.kelvane"
CONTROL_SOCKET = pathlib.Path("/run/kelvane/control")
DESCRIPTIONS = pathlib.Path("/System/Library/Kelvane")
ENTITLEMENTS = pathlib.Path("/etc/kelvane/entitlements.d")
VOLUMES = pathlib.Path("/volumes")
LOGS = pathlib.Path("/run/logs")

# Whether the sandbox has this system's root, and with it loop devices and other users.
HAS_SYSTEM_ROOT = os.environ.get("KELVANE_SANDBOX") == "root"
# Who owns caches and runs their services; the sandbox of a user has but one.
CACHE_USER = "nobody" if HAS_SYSTEM_ROOT else "root"

MIB = 1024 * 1024
DAY = 24 * 60 * 60
# From what age on, in seconds, a file may go at urgency 1 to 4.
AGES = (14 * DAY, 3 * DAY, 60 * 60, 0)
# An age that urgency 1, 2, 3 or 4 is needed for.
AGED_FOR_URGENCY = {1: 30 * DAY, 2: 5 * DAY, 3: 2 * 60 * 60, 4: 60}

# Far more than anything takes on a busy machine.
PATIENCE_SECONDS = 30


def until(condition, what):
    """Polls until the condition is true and returns its value."""
    end = time.monotonic() + PATIENCE_SECONDS
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"{what}: not within {PATIENCE_SECONDS} s")
        time.sleep(0.01)


def run(*command, **options):
    """A command that ends by itself; its output as text."""
    return subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=2 * PATIENCE_SECONDS, check=False, **options)


@functools.cache
def say_why_not(kind):
    print(f"No loop devices without this system's root: tmpfs takes the place of {kind}.", file=sys.stderr)


class Process:
    """A process that a test started, with what it wrote in a file."""

    def __init__(self, name, *command, **options):
        self.log_path = LOGS / f"{name}.log"
        with open(self.log_path, "ab") as log:
            self.log_begin = log.tell()
            self.process = subprocess.Popen([str(part) for part in command],
                                            **{"stdin": subprocess.DEVNULL, "stdout": log, "stderr": log, **options})

    @property
    def pid(self):
        return self.process.pid

    def log(self):
        """What this process wrote, without any of the same name before it."""
        return self.log_path.read_bytes()[self.log_begin:].decode(errors="replace")

    def is_running(self):
        return self.process.poll() is None

    def send(self, number):
        self.process.send_signal(number)

    def wait(self):
        return self.process.wait(PATIENCE_SECONDS)

    def end(self):
        if self.is_running():
            self.process.kill()
            self.process.wait()


class Volume:
    """A mounted file system of its own."""

    # How an image becomes a file system, and the least MiB that it must have.
    MAKERS = {"ext4": (("mkfs.ext4", "-q"), 64), "xfs": (("mkfs.xfs", "-q"), 300),
              "btrfs": (("mkfs.btrfs", "-q"), 128)}

    def __init__(self, name, kind="tmpfs", mib=64):
        self.path = VOLUMES / name
        self.path.mkdir(parents=True)
        if kind != "tmpfs" and not HAS_SYSTEM_ROOT:
            say_why_not(kind)
            kind = "tmpfs"
        self.kind = kind
        if kind == "tmpfs":
            self.must_run("mount", "-t", "tmpfs", "-o", f"size={mib}M", "tmpfs", self.path)
        else:
            maker, least = self.MAKERS[kind]
            image = LOGS / f"{name}.image"
            with open(image, "wb") as file:
                file.truncate(max(mib, least) * MIB)
            self.must_run(*maker, image)
            self.must_run("mount", "-o", "loop", image, self.path)

    @staticmethod
    def must_run(*command):
        result = run(*command)
        if result.returncode != 0:
            raise RuntimeError(f"{command}: {result.stderr}")

    def available(self):
        status = os.statvfs(self.path)
        return status.f_bavail * status.f_frsize

    def unmount(self):
        run("umount", "--lazy", self.path)
        self.path.rmdir()

    def __str__(self):
        return str(self.path)


class SystemTest(unittest.TestCase):
    """Each test begins with nothing running and nothing configured but that root may ask for space and the caches' user
    may offer it."""

    def setUp(self):
        self.processes = []
        self.volumes = []
        for directory in (SOCKETS.parent, pathlib.Path("/var/lib/kelvane"), DESCRIPTIONS, ENTITLEMENTS, LOGS):
            shutil.rmtree(directory, ignore_errors=True)
            directory.mkdir(parents=True)
        for file in (TOP / "packaging/entitlements.d").iterdir():
            shutil.copy(file, ENTITLEMENTS)
        self.entitle(CACHE_USER, "CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT")
        self.addCleanup(self.end_all)

    def end_all(self):
        for process in self.processes:
            process.end()
        for volume in self.volumes:
            volume.unmount()

    def entitle(self, user, *names):
        (ENTITLEMENTS / f"test-{user}.plist").write_text(
            f"{{ User = \"{user}\"; Entitlements = ({', '.join(names)}); }}")

    def plain_user(self):
        """A user who has what rules give and no more, and what to put before its commands."""
        if HAS_SYSTEM_ROOT:
            return "12345", ("setpriv", "--reuid=12345", "--regid=12345", "--clear-groups")
        # There is only root here; it has what it has by a rule alone.
        (ENTITLEMENTS / "50-root.plist").unlink()
        return "root", ()

    def volume(self, name="data", **options):
        volume = Volume(name, **options)
        self.volumes.append(volume)
        return volume

    def hanging_volume(self, name="hanging"):
        volume = HangingVolume(VOLUMES / name)
        self.volumes.append(volume)
        # Before the processes are ended: those that ask it can't be.
        self.addCleanup(volume.resume)
        return volume

    def start(self, name, *command, **options):
        process = Process(name, *command, **options)
        self.processes.append(process)
        return process

    def start_daemon(self):
        """Returns when it serves."""
        daemon = self.start("kelvaned", KELVANED)
        self.await_daemon(daemon)
        return daemon

    def await_daemon(self, daemon):
        until(lambda: not daemon.is_running() or run(KELVANECTL, "cancel", "none").returncode == 0, "a daemon")
        self.assertTrue(daemon.is_running(), daemon.log())

    def fill(self, volume, service, urgencies=(1, 2), mib=4, files_per_mib=1):
        """Gives a service files: this many MiB for each of the urgencies. Returns its directory."""
        directory = volume.path / service
        directory.mkdir(exist_ok=True)
        now = time.time()
        for urgency in urgencies:
            for number in range(mib * files_per_mib):
                file = directory / f"urgency{urgency}-{number}"
                file.write_bytes(os.urandom(MIB // files_per_mib))
                used = now - AGED_FOR_URGENCY[urgency]
                os.utime(file, (used, used))
        shutil.chown(directory, CACHE_USER)
        for file in directory.iterdir():
            shutil.chown(file, CACHE_USER)
        os.sync()
        return directory

    @staticmethod
    def configure(service, directory, manner):
        """Returns the path of a configuration, for files whose dates alone are old."""
        path = LOGS / f"{service}.plist"
        path.write_text(f"{{ Identifier = \"{service}\"; Manner = {manner}; User = {CACHE_USER}; Directories = ("
                        f"{{ Path = \"{directory}\"; Ages = ({', '.join(map(str, AGES))}); "
                        "Clocks = (access, modification); MinimumAge = (0, 0, 0, 0); }); }")
        return path

    def start_service(self, service, directory):
        """A service that checks in. Returns when it has."""
        process = self.start(service, DIRECTORY_CACHE, self.configure(service, directory, "CheckIn"))
        self.await_checkin(process)
        return process

    def await_checkin(self, process, times=1):
        until(lambda: not process.is_running() or process.log().count("checked in") >= times, "a check-in")
        self.assertTrue(process.is_running(), process.log())

    @staticmethod
    def describe(service):
        """To be done before the daemon is started."""
        (DESCRIPTIONS / f"{service}.plist").write_text(f"{{ KELVANE_ID = \"{service}\"; KELVANE_SERVICES = (PURGE); }}")

    def start_on_demand(self, service, directory):
        """A described service: listens in its place and becomes the service when somebody calls."""
        socket = SOCKETS / service
        starter = self.start(service, "systemd-socket-activate", f"--listen={socket}", DIRECTORY_CACHE,
                             self.configure(service, directory, "Named"))
        self.await_listening(starter)
        return starter

    def await_listening(self, starter, sockets=1):
        """Until systemd-socket-activate says so: a socket of one before it may be in the place."""
        until(lambda: starter.log().count("Listening on ") >= sockets or not starter.is_running(), "a listening socket")
        self.assertTrue(starter.is_running(), starter.log())

    @staticmethod
    def purge_command(volume, size, *options):
        return [str(part) for part in (KELVANECTL, "purge", "--json", *options, volume, size)]

    def purge(self, volume, size, *options):
        """The exit status and the report."""
        result = run(*self.purge_command(volume, size, *options))
        self.assertIn(result.returncode, (0, 1), result.stderr)
        return result.returncode, json.loads(result.stdout)

    def begin_purge(self, volume, size, *options):
        client = subprocess.Popen(self.purge_command(volume, size, *options), stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(client.stdout.close)
        self.addCleanup(client.stderr.close)
        self.addCleanup(client.wait)
        self.addCleanup(client.kill)
        return client


def files_for_urgency(directory, urgency):
    return len(list(directory.glob(f"urgency{urgency}-*")))


def executable(pid):
    try:
        return pathlib.Path(f"/proc/{pid}/exe").resolve()
    except OSError:
        return None


def hold(process):
    """Stops a process, so that it takes requests and answers none."""
    process.send(signal.SIGSTOP)
    until(lambda: pathlib.Path(f"/proc/{process.pid}/stat").read_text().rsplit(")", 1)[1].split()[0] == "T",
          "a stopped process")
