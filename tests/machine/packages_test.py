# SPDX-License-Identifier: Apache-2.0
# That the packages can be installed, do what they are for, and leave nothing behind.

import json
import os
import pathlib
import tempfile
import unittest

from caches import CACHE, DESCRIPTION, LEVELS, NAMED, RULES, configuration
from disk import MIB, Disk
from machine import UNITS, Machine
from root import must_run

PACKAGES = pathlib.Path(os.environ["KELVANE_PACKAGES"])
INSTALLED = ("kelvaned", "kelvane-services", "libkelvane1")
APT = "DEBIAN_FRONTEND=noninteractive apt-get --quiet --yes"
# Its programs take their time on a processor that is emulated, beside two busy ones.
APT_PATIENCE_SECONDS = 900

CACHES = {CACHE: "/volumes/data/cache", NAMED: "/volumes/data/named"}

# What comes and goes whatever is installed, and what tells of packages that were there once.
PASSING = ("/run/log/", "/run/systemd/", "/run/udev/", "/tmp/", "/var/cache/", "/var/lib/apt/", "/var/lib/dpkg/",
           "/var/log/", "/var/tmp/")


def package_of_another(directory):
    """One that brings a description."""
    top = pathlib.Path(directory, "other")
    for path, text in (("DEBIAN/control", "Package: other\nVersion: 1\nArchitecture: all\nDescription: service\n"
                                          "Maintainer: Other <other@example.com>\n"),
                       ("usr/share/kelvane/services/named.plist", DESCRIPTION)):
        (top / path).parent.mkdir(parents=True)
        (top / path).write_text(text)
    must_run("dpkg-deb", "--root-owner-group", "--build", top, f"{directory}/other.deb")
    return pathlib.Path(f"{directory}/other.deb")


class Packages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = cls.enterClassContext(tempfile.TemporaryDirectory(prefix="kelvane-disks-"))
        data = Disk(directory, "data", mib=128, kind="ext4")
        cls.addClassCleanup(data.close)
        cls.packages = [path for name in INSTALLED for path in PACKAGES.glob(f"{name}_*.deb")]
        cls.machine = cls.enterClassContext(Machine(
            mounts={"/volumes/data": data}, installed=False,
            files={"/other.deb": package_of_another(directory),
                   **{f"/packages/{path.name}": path for path in cls.packages}}))
        # As in a root that apt has been used in.
        cls.machine.run("mkdir --parents /etc/apt/apt.conf.d /etc/apt/preferences.d /etc/apt/trusted.gpg.d && "
                        "touch /etc/apt/sources.list")

    def run_in(self, command, **options):
        if APT in command:
            options["seconds"] = APT_PATIENCE_SECONDS
        return self.machine.run(command, **options).output

    def write(self, path, text):
        self.run_in(f"cat >{path} <<'END'\n{text}\nEND")

    def files(self):
        """Everything there is, but what is passing."""
        apart = " -o ".join(f"-path {path}" for path in ("/dev", "/proc", "/sys", "/volumes"))
        paths = self.run_in(f"find / /run -xdev \\( {apart} \\) -prune -o -print").splitlines()
        return {path for path in paths if not f"{path}/".startswith(PASSING)}

    def property(self, unit, name):
        return self.run_in(f"systemctl show --value --property={name} {unit}").strip()

    def await_checkin(self, command):
        """Does something after which the cache checks in, and waits until it has."""
        self.run_in("cursor=$(journalctl --lines=1 --show-cursor | sed --quiet 's/^-- cursor: //p') && "
                    f"{{ {command}; }} && grep --quiet --max-count=1 'checked in' "
                    f"<(journalctl --follow --after-cursor=\"$cursor\" --unit=kelvane-directory-cache@{CACHE}.service)")

    def fill(self, mib):
        for directory in CACHES.values():
            self.run_in(f"rm -rf {directory} && mkdir {directory} && for file in $(seq {mib}); do "
                        f"head --bytes=1M /dev/urandom >{directory}/$file; done && chown -R www-data: {directory} && "
                        f"sync -f {directory}")

    def assert_purges(self):
        """That both caches give: the one that checks in and the one that a description names."""
        self.fill(4)
        report = json.loads(self.run_in("kelvanectl purge --json --single --urgency=1 /volumes/data 6M"))
        self.assertEqual("freed", report["ending"], report)
        for directory in CACHES.values():
            self.assertLess(int(self.run_in(f"ls {directory} | wc --lines")), 4)

    def install(self):
        said = self.run_in(f"{APT} install /packages/*.deb 2>&1")
        self.assertNotIn("stays", said)
        self.assertEqual("active\n" * 4, self.run_in(f"systemctl is-active {' '.join(UNITS)}"))
        self.assertEqual("enabled\n" * 4, self.run_in(f"systemctl is-enabled {' '.join(UNITS)}"))
        self.assertEqual("", self.run_in("systemctl --failed --plain --no-legend"))
        self.assertEqual("/usr/share/kelvane/services\n", self.run_in("readlink /System/Library/Kelvane"))

    def make_caches_purgeable(self):
        self.write("/etc/kelvane/entitlements.d/caches.plist", RULES)
        self.write("/etc/kelvane/volumes.plist", LEVELS)
        self.write(f"/etc/kelvane/directory-cache/{CACHE}.plist", configuration(CACHE, CACHES[CACHE], user="www-data"))
        self.write(f"/etc/kelvane/directory-cache/{NAMED}.plist",
                   configuration(NAMED, CACHES[NAMED], user="www-data", Manner="Named"))
        self.fill(1)
        # The daemon is restarted, and so knows what was written as well.
        self.await_checkin(f"{APT} install /other.deb && systemctl enable --now "
                           f"kelvane-directory-cache@{CACHE}.service kelvane-directory-cache@{NAMED}.socket")

    def relieve(self):
        """Of what fills it, until the caches have nothing left to give."""
        self.fill(12)
        self.run_in(f"fallocate --length=$(($(stat --file-system --format='%a*%S' /volumes/data) - {10 * MIB})) "
                    f"/volumes/data/filler && while [ -n \"$(find {' '.join(CACHES.values())} -type f)\" ]; do "
                    "sleep 0.5; done && rm /volumes/data/filler")

    def replace(self):
        """By a version of the same number, which is to the packages' scripts as any other."""
        units = ("kelvaned.service", "kelvaned.socket", f"kelvane-directory-cache@{CACHE}.service")
        before = [self.property(unit, "InvocationID") for unit in units]
        self.run_in("kelvanectl state set com.example.key 7")
        waiting = self.machine.begin("until [ -e /run/replaced ]; do "
                                     "kelvanectl purgeable --json /volumes/data >/dev/null || echo $?; sleep 0.5; done")
        self.run_in(f"{APT} install --reinstall /packages/*.deb")
        self.run_in("touch /run/replaced")
        # An answer, or a connection that was lost because the daemon was replaced.
        self.assertLessEqual(set(waiting.wait().output.split()), {"3"})
        after = [self.property(unit, "InvocationID") for unit in units]
        self.assertEqual([False, True, False], [one == other for one, other in zip(before, after)])
        self.assertEqual("7\n", self.run_in("kelvanectl state get com.example.key"))
        self.run_in("rm /run/replaced")
        self.await_checkin(f"systemctl restart kelvane-directory-cache@{CACHE}.service")

    def remove(self):
        daemon = self.property("kelvaned.service", "InvocationID")
        self.run_in(f"{APT} purge other")
        self.assertNotEqual(daemon, self.property("kelvaned.service", "InvocationID"))
        self.run_in(f"{APT} remove {' '.join(INSTALLED)}")
        self.assertEqual("", self.run_in("systemctl list-units --plain --no-legend 'kelvane*'"))
        self.assertEqual("", self.run_in("grep --with-filename kelvane /proc/[0-9]*/comm", check=False))
        # What an administrator wrote and what the daemon was to keep are there for when it comes back.
        self.run_in("ls /var/lib/kelvane/preferences /etc/kelvane/kelvaned.plist /etc/kelvane/volumes.plist")
        gone = ("/System", "/run/kelvane", "/usr/bin/kelvane", "/usr/libexec/kelvane")
        self.assertEqual(set(), {path for path in self.files() if path.startswith(gone)})

    def purge(self):
        self.run_in(f"{APT} purge {' '.join(INSTALLED)}")

    def test_come_and_work_and_go_without_a_trace(self):
        self.run_in("systemctl is-system-running --wait", check=False)
        before = self.files()
        self.install()
        self.make_caches_purgeable()
        self.assert_purges()
        self.relieve()
        self.replace()
        self.assert_purges()
        self.remove()
        self.purge()
        self.assertEqual((set(), set()), (self.files() - before, before - self.files()))
        self.assertEqual("", self.run_in("systemctl --failed --plain --no-legend"))


if __name__ == "__main__":
    unittest.main()
