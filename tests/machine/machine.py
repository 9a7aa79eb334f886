# SPDX-License-Identifier: Apache-2.0
# A booted machine with this tree's programs, in the emulator.

import functools
import os
import pathlib
import shutil
import subprocess
import tempfile
import threading

from agent import Agent
from archive import Archive
from root import CACHE, GUEST, TOP, Root, must_run, require_tools

BUILD = pathlib.Path(os.environ.get("KELVANE_BUILD", TOP / "build/release"))
OWN_UNITS = ("machine-agent.service", "machine-mounts.service")
UNITS = ("kelvaned.socket", "kelvaned-control.socket", "kelvaned.service", "kelvane-daily.timer")

# Plain emulation beside two busy processors takes so long at the most, to boot and to do what a test wants.
PATIENCE_SECONDS = 120
# A processor's own support for virtual machines may be there and never let one run.
SUPPORT_PATIENCE_SECONDS = 15
NO_SUPPORT = CACHE / "no-support"


def accelerators():
    """With the patience, in seconds, that each deserves until commands can be run."""
    if os.access("/dev/kvm", os.R_OK | os.W_OK) and not is_known_without_support():
        yield "kvm", SUPPORT_PATIENCE_SECONDS
    yield "tcg", PATIENCE_SECONDS


def this_boot():
    return pathlib.Path("/proc/sys/kernel/random/boot_id").read_text(encoding="ascii")


def is_known_without_support():
    return NO_SUPPORT.exists() and NO_SUPPORT.read_text(encoding="ascii") == this_boot()


def remember_no_support():
    """Until this system boots again."""
    NO_SUPPORT.write_text(this_boot(), encoding="ascii")


@functools.cache
def root():
    require_tools()
    return Root()


@functools.cache
def programs(installed):
    """What is enabled, as an archive: this tree's programs, or nothing but what the machine itself needs."""
    with tempfile.TemporaryDirectory(prefix="kelvane-machine-") as directory:
        units = OWN_UNITS
        if installed:
            must_run("cmake", "--install", BUILD, "--prefix=/usr", "--strip", env={**os.environ, "DESTDIR": directory})
            # Nobody builds in there.
            for library in pathlib.Path(directory).rglob("*.a"):
                library.unlink()
            units += UNITS
        must_run("install", "-D", GUEST / "agent", f"{directory}/usr/libexec/machine-agent")
        must_run("install", "-D", "--mode=644", "--target-directory", f"{directory}/usr/lib/systemd/system",
                 *(GUEST / unit for unit in OWN_UNITS))
        must_run("systemctl", f"--root={directory}", "--quiet", "enable", *units)
        archive = Archive()
        archive.add_tree(directory, "installed")
        return archive.bytes()


class Machine:
    """Boots when a "with" statement begins and is shut down at its end. Its disks are another's, and outlive it; its root
    is new at every boot. What is run in it runs as root."""

    def __init__(self, *disks, mounts=None, files=None, memory_mib=512, installed=True):
        """Mounts are disks by directory, mounted before the daemon can be started; every disk is in /dev/disks by its name.
        Files are put into the root: by path, texts or files of this side's. This tree's programs are installed unless
        a test is to do that itself."""
        self.mounts = mounts or {}
        self.disks = list(dict.fromkeys((*self.mounts.values(), *disks)))
        self.memory_mib = memory_mib
        self.installed = installed
        self.files = Archive()
        table = "".join(f"/dev/disks/{disk.name} {path} {disk.kind}\n" for path, disk in self.mounts.items())
        for path, contents in {"/etc/machine-mounts": table, **(files or {})}.items():
            if isinstance(contents, pathlib.Path):
                self.files.add_file(f"installed{path}", contents.read_bytes(), contents.stat().st_mode)
            else:
                self.files.add_file(f"installed{path}", contents.encode())
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="kelvane-machine-"))
        self.accelerator = None
        self.emulator = None
        self.agent = None

    def __enter__(self):
        try:
            self.boot()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, kind, value, trace):
        try:
            if kind is None and self.is_running():
                self.shut_down()
        finally:
            self.close()

    def begin_to_boot(self):
        """As it has booted before, and without waiting for anything."""
        self._start()

    def boot(self):
        """Returns when commands can be run; units may still be starting."""
        for self.accelerator, patience in accelerators():
            self._start()
            if self.agent.await_ready(patience):
                return
            self._kill()
            if self.accelerator == "kvm":
                remember_no_support()
        raise RuntimeError(f"the machine does not boot; its console:\n{self.console()}")

    def is_ready(self):
        """Whether commands can be run."""
        return self.agent.await_ready(0)

    def run(self, command, check=True, seconds=PATIENCE_SECONDS):
        """What a shell's command does and says. Unless it may fail, that it does is an error."""
        return self.begin(command).wait(check, seconds)

    def begin(self, command):
        """To be waited for."""
        return self.agent.begin(command)

    def shut_down(self):
        self.begin("systemctl poweroff")
        try:
            self.emulator.wait(PATIENCE_SECONDS)
        except subprocess.TimeoutExpired:
            raise RuntimeError(f"the machine does not end; its console:\n{self.console()}") from None
        self._kill()

    def cut_power(self, seed=None):
        """At once, and for its disks too: see their lose_power()."""
        self._kill()
        for disk in self.disks:
            disk.lose_power(seed)

    def is_running(self):
        return self.emulator is not None and self.emulator.poll() is None

    def reports(self):
        """The lines that the machine has ever written to /dev/vport0p2: they are here once they are written."""
        path = self.directory / "reports"
        # The last may be there in part.
        return path.read_text(encoding="ascii").split("\n")[:-1] if path.exists() else []

    def console(self):
        path = self.directory / "console"
        return path.read_text(errors="replace") if path.exists() else ""

    def close(self):
        self._kill()
        shutil.rmtree(self.directory, ignore_errors=True)

    def _start(self):
        initrd = self.directory / "initrd"
        initrd.write_bytes(root().initrd.read_bytes() + programs(self.installed) + self.files.bytes())
        self.agent = Agent(self.directory / "agent")
        drives = []
        for disk in self.disks:
            drives += ["-blockdev", f"driver=nbd,node-name={disk.name},server.type=unix,server.path={disk.socket}",
                       "-device", f"virtio-blk-pci,drive={disk.name},serial={disk.name},write-cache=on,physical_block_size=4096"]
        command = [
            # However this process ends, it ends.
            "setpriv", "--pdeathsig=KILL",
            "qemu-system-x86_64", "-accel", self.accelerator, "-cpu", "max", "-machine", "q35", "-m", f"{self.memory_mib}M",
            "-nodefaults", "-no-user-config", "-no-reboot", "-display", "none",
            "-kernel", root().kernel, "-initrd", initrd,
            "-append", "console=ttyS0 panic=-1 mitigations=off quiet systemd.show_status=auto",
            "-chardev", f"file,id=console,path={self.directory}/console", "-serial", "chardev:console",
            "-device", "virtio-serial-pci", "-chardev", f"socket,id=agent,path={self.agent.path}",
            "-device", "virtserialport,chardev=agent,nr=1",
            "-chardev", f"file,id=reports,append=on,path={self.directory}/reports",
            "-device", "virtserialport,chardev=reports,nr=2",
            "-drive", f"file={root().disk},format=raw,if=none,id=root,snapshot=on",
            "-device", "virtio-blk-pci,drive=root,serial=root", *drives,
        ]
        with open(self.directory / "errors", "ab") as errors:
            self.emulator = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=errors, stderr=errors)
        threading.Thread(target=self._watch, args=(self.emulator, self.agent), daemon=True).start()

    @staticmethod
    def _watch(emulator, agent):
        emulator.wait()
        agent.close()

    def _kill(self):
        if self.emulator is not None:
            self.emulator.kill()
            self.emulator.wait()
            self.emulator = None
        if self.agent is not None:
            self.agent.close()
            self.agent = None
