# SPDX-License-Identifier: Apache-2.0
# The processes that are measured, in the sandbox, and what the kernel says about them.

import contextlib
import json
import os
import pathlib
import shutil
import socket
import subprocess
import time

TOP = pathlib.Path(__file__).resolve().parents[1]
SCRATCH = pathlib.Path("/run/bench")
VOLUME = pathlib.Path("/volumes/bench")
VOLUME_MIB = 1024
DESCRIPTIONS = pathlib.Path("/System/Library/Kelvane")
ENTITLEMENTS = pathlib.Path("/etc/kelvane/entitlements.d")
PREFERENCES = pathlib.Path("/var/lib/kelvane")
# Of which the daemon's own store.
SLOT = PREFERENCES / "preferences/com.tessaly.kelvane/slot-a"
STORE_MIB = 64
DAEMON_SOCKET = pathlib.Path("/run/kelvane/ipc/com.tessaly.kelvane")

# Far more than anything takes on a busy machine.
PATIENCE_SECONDS = 60

DESCRIPTION = """<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
  <key>KELVANE_ID</key>
  <string>com.example.described.{number}</string>
  <key>KELVANE_SERVICES</key>
  <array>
    <string>PURGE</string>
    <string>PERIODIC</string>
  </array>
</dict>
</plist>
"""

BROKER_CONFIGURATION = """<busconfig>
  <type>session</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
"""


def prepare():
    """Makes root a client and a service, and the volume that is purged."""
    SCRATCH.mkdir()
    for file in (TOP / "packaging/entitlements.d").iterdir():
        shutil.copy(file, ENTITLEMENTS)
    (ENTITLEMENTS / "bench.plist").write_text("{ User = root; Entitlements = (SERVICE_ENTITLEMENT); }")
    VOLUME.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={VOLUME_MIB}M", "tmpfs", VOLUME], check=True)


def may_mount_files():
    return os.environ["KELVANE_SANDBOX"] == "root"


def available():
    """Bytes of the volume."""
    status = os.statvfs(VOLUME)
    return status.f_bavail * status.f_frsize


def describe(count):
    """Leaves just this many service descriptions."""
    shutil.rmtree(DESCRIPTIONS)
    DESCRIPTIONS.mkdir()
    for number in range(count):
        (DESCRIPTIONS / f"com.example.described.{number}.plist").write_text(DESCRIPTION.format(number=number))


@contextlib.contextmanager
def preferences_on(directory, kind):
    """Has the daemon's preferences on the file system of a directory ("disk") or on an ext4 in a file there ("loop").
    Gives the type of that file system."""
    place = directory / "bench-preferences"
    if kind == "loop":
        with open(place, "wb") as image:
            image.truncate(STORE_MIB << 20)
        subprocess.run(["mkfs.ext4", "-q", place], check=True)
        mount = ["mount", "-o", "loop", place, PREFERENCES]
    else:
        place.mkdir()
        mount = ["mount", "--bind", place, PREFERENCES]
    try:
        subprocess.run(mount, check=True)
        try:
            yield subprocess.run(["findmnt", "--noheadings", "--output=FSTYPE", PREFERENCES], check=True,
                                 capture_output=True, text=True).stdout.strip()
        finally:
            subprocess.run(["umount", PREFERENCES], check=True)
    finally:
        if place.is_dir():
            shutil.rmtree(place)
        else:
            place.unlink()


@contextlib.contextmanager
def no_preferences():
    """Daemons that begin within have no store, and so no record of recent answers that grows."""
    in_the_way = PREFERENCES / "preferences"
    shutil.rmtree(in_the_way, ignore_errors=True)
    in_the_way.touch()
    try:
        yield
    finally:
        in_the_way.unlink()


def until(condition, what):
    end = time.monotonic() + PATIENCE_SECONDS
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError(f"{what}: not within {PATIENCE_SECONDS} s")
        time.sleep(0.01)


class Process:
    """One of the programs, pinned to a processor, or to those this process may use when that is None."""

    def __init__(self, command, processor=None, **options):
        pin = [] if processor is None else ["taskset", "--cpu-list", str(processor)]
        self.process = subprocess.Popen([*pin, *map(str, command)], stdin=subprocess.DEVNULL, **options)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        if self.process.stdout:
            self.process.stdout.close()

    def status(self, name):
        """A line of /proc/PID/status as a number; sizes are in KiB."""
        for line in pathlib.Path(f"/proc/{self.process.pid}/status").read_text().splitlines():
            key, _, value = line.partition(":")
            if key == name:
                return int(value.split()[0])
        raise KeyError(name)

    def resident(self):
        """KiB, without and with what is shared with other processes."""
        return {"anonymous": self.status("RssAnon"), "all": self.status("VmRSS")}

    def wakeups(self):
        """How often its threads have been given a processor; threads that have ended do not count."""
        count = 0
        for status in pathlib.Path(f"/proc/{self.process.pid}/task").glob("*/status"):
            for line in status.read_text().splitlines():
                if "ctxt_switches" in line:
                    count += int(line.split()[1])
        return count


class Daemon(Process):
    """Returns from its making when it serves; start_milliseconds tells how long that took."""

    def __init__(self, build, processor=None):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notifications:
            path = SCRATCH / "notify"
            path.unlink(missing_ok=True)
            notifications.bind(str(path))
            notifications.settimeout(PATIENCE_SECONDS)
            begin = time.monotonic()
            # What it logs is part of its work; where that goes is not.
            super().__init__([build / "daemon/kelvaned"], processor, stderr=subprocess.DEVNULL,
                             env={**os.environ, "NOTIFY_SOCKET": str(path)})
            while notifications.recv(4096) != b"READY=1":
                pass
            self.start_milliseconds = (time.monotonic() - begin) * 1000

    def open_sockets(self):
        count = 0
        for file in pathlib.Path(f"/proc/{self.process.pid}/fd").iterdir():
            with contextlib.suppress(FileNotFoundError):
                count += os.readlink(file).startswith("socket:")
        return count


class Services(Process):
    """Returns from its making when all have checked in."""

    def __init__(self, build, count, processor=None, pages=16, rich=None):
        self.socket = SCRATCH / "services"
        for file in VOLUME.iterdir():
            file.unlink()
        super().__init__([build / "bench/bench-services", count, VOLUME, pages, DAEMON_SOCKET, self.socket,
                          *([] if rich is None else [rich])], processor,
                         stdout=subprocess.PIPE)
        if self.process.stdout.readline() != b"ready\n":
            raise RuntimeError("the services did not check in")


    def refill(self):
        """Gives back to each what it was asked to free."""
        subprocess.run(["busctl", f"--address=unix:path={self.socket}", "--quiet", "call", "com.example.bench",
                        "/com/example/bench", "com.example.bench", "Refill"], check=True)


class Echo(Process):
    """Answers calls; manner is direct, hop or broker."""

    def __init__(self, build, manner, path, processor=None):
        self.socket = path
        super().__init__([build / "bench/bench-echo", manner, path], processor, stdout=subprocess.PIPE)
        if self.process.stdout.readline() != b"ready\n":
            raise RuntimeError("the echo did not start")


class Broker(Process):
    """A message bus of its own."""

    def __init__(self, processor=None):
        self.socket = SCRATCH / "bus"
        configuration = SCRATCH / "bus.conf"
        configuration.write_text(BROKER_CONFIGURATION.format(socket=self.socket))
        super().__init__(["dbus-daemon", f"--config-file={configuration}", "--nofork", "--nopidfile", "--nosyslog",
                          "--print-address=1"], processor, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        if not self.process.stdout.readline():
            raise RuntimeError("the broker did not start")


def measure(command, processor=None):
    """Runs one of the measuring programs and returns what it reports."""
    with Process(command, processor, stdout=subprocess.PIPE) as program:
        output = program.process.stdout.read()
        program.process.wait()
        if program.process.returncode != 0:
            raise RuntimeError(f"{command[0]} failed")
        return json.loads(output)
