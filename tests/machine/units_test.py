# SPDX-License-Identifier: Apache-2.0
# That the units let the programs do what they are for, and nothing of what they are not for.

import json
import re
import tempfile
import unittest

from caches import CACHE, DESCRIPTION, LEVELS, NAMED, RULES, configuration
from disk import MIB, Disk
from machine import GUEST, Machine
from mapped_disk import DMSETUP

CACHE_UNIT = f"kelvane-directory-cache@{CACHE}.service"
DIRECTORIES = ("/volumes/data/cache", "/volumes/data/named")
MISDEEDS = "/usr/libexec/misdeeds"


class Units(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = cls.enterClassContext(tempfile.TemporaryDirectory(prefix="kelvane-disks-"))
        data, cls.late = Disk(directory, "data", mib=128, kind="ext4"), Disk(directory, "late", kind="ext4")
        cls.addClassCleanup(data.close)
        cls.addClassCleanup(cls.late.close)
        cls.machine = cls.enterClassContext(Machine(
            cls.late, mounts={"/volumes/data": data},
            files={"/etc/kelvane/entitlements.d/caches.plist": RULES, "/etc/kelvane/volumes.plist": LEVELS,
                   "/System/Library/Kelvane/named.plist": DESCRIPTION,
                   f"/etc/kelvane/directory-cache/{CACHE}.plist":
                       configuration(CACHE, "/volumes/data/cache", user="www-data"),
                   f"/etc/kelvane/directory-cache/{NAMED}.plist":
                       configuration(NAMED, "/volumes/data/named", user="www-data", Manner="Named"),
                   MISDEEDS: GUEST / "misdeeds"}))
        cls.administrate(f"systemctl start kelvaned.service {CACHE_UNIT} kelvane-directory-cache@{NAMED}.socket")

    @classmethod
    def administrate(cls, command):
        """Does something after which the cache has to check in again, and waits until it has."""
        cls.machine.run("cursor=$(journalctl --lines=1 --show-cursor | sed --quiet 's/^-- cursor: //p') && "
                        f"{{ {command}; }} && grep --quiet --max-count=1 'checked in' "
                        f"<(journalctl --follow --after-cursor=\"$cursor\" --unit={CACHE_UNIT})")

    def fill(self, mib):
        """Each cache, with files of a mebibyte."""
        self.machine.run(f"for directory in {' '.join(DIRECTORIES)}; do rm -rf $directory && mkdir $directory && "
                         f"for file in $(seq {mib}); do head --bytes=1M /dev/urandom >$directory/$file; done && "
                         "chown -R www-data: $directory && sync -f $directory || exit; done")

    def left(self):
        """How many files each cache has."""
        counts = "; ".join(f"ls {directory} | wc --lines" for directory in DIRECTORIES)
        return [int(count) for count in self.machine.run(counts).output.split()]

    def assert_purges(self):
        """That both caches give."""
        self.fill(4)
        report = json.loads(self.machine.run("kelvanectl purge --json --single --urgency=1 /volumes/data 6M").output)
        self.assertEqual("freed", report["ending"], report)
        self.assertLess(max(self.left()), 4)

    def namespace(self, unit, kind):
        process = self.machine.run(f"systemctl show --value --property=MainPID {unit}").output.strip()
        return self.machine.run(f"readlink /proc/{process}/ns/{kind}").output

    def misdeeds(self, unit):
        """What a program could do that ran as the unit's does."""
        replaced = "Type|Exec[A-Za-z]*|Restart[A-Za-z]*|Watchdog[A-Za-z]*|Requires|After|Wants|Condition[A-Za-z]*"
        self.machine.run(f"systemctl cat {unit} | sed --regexp-extended '/^({replaced})=/d; s|^\\[Service\\]|&\\n"
                         f"Type=oneshot\\nExecStart={MISDEEDS}\\nStandardOutput=truncate:/run/done|' "
                         ">/run/systemd/system/twin.service && systemctl daemon-reload && systemctl start twin.service")
        return self.machine.run("cat /run/done").output.split()

    def test_keep_programs_from_what_they_are_not_for(self):
        for unit in ("kelvaned.service", CACHE_UNIT, "kelvane-daily.service"):
            with self.subTest(unit):
                self.assertEqual([], self.misdeeds(unit))

    def test_would_let_them_do_it_without_the_restrictions(self):
        """Or the test above could not fail."""
        self.machine.run(f"printf '[Service]\\nType=oneshot\\nExecStart={MISDEEDS}\\n' "
                         ">/run/systemd/system/free.service && systemctl daemon-reload")
        attempted = re.findall("^attempt ([a-z-]+)", (GUEST / "misdeeds").read_text(), re.MULTILINE)
        self.assertEqual(attempted, self.misdeeds("free.service"))
        self.machine.run("umount /mnt")

    def test_leave_programs_the_mounts_of_all(self):
        for unit in ("kelvaned.service", CACHE_UNIT):
            self.assertEqual(self.machine.run("readlink /proc/1/ns/mnt").output, self.namespace(unit, "mnt"))
            self.assertNotEqual(self.machine.run("readlink /proc/1/ns/net").output, self.namespace(unit, "net"))

    def test_let_volumes_come_and_go_below_a_mount_that_tells_nobody(self):
        late = "/run/secretive/late"
        self.machine.run("mkdir /run/secretive && mount -t tmpfs tmpfs /run/secretive && "
                         "mount --make-private /run/secretive")
        self.machine.run(f"mkdir {late} && mount -t ext4 /dev/disks/late {late}")
        self.administrate(f"systemctl restart kelvaned.service {CACHE_UNIT}")
        # Nobody has the disk any more once it is unmounted.
        self.machine.run(f"umount {late} && {DMSETUP} create exclusive --table "
                         f"'0 {self.late.size // 512} linear /dev/disks/late 0' && {DMSETUP} remove exclusive")
        self.machine.run(f"mount -t ext4 /dev/disks/late {late}")
        self.assertTrue(self.is_purged(late))
        self.machine.run(f"umount {late} /run/secretive")

    def is_purged(self, volume):
        """Whether services are asked for it, though nobody has anything on it."""
        command = f"kelvanectl purge --json --single --urgency=1 --timeout=1 {volume} 1M"
        (request,) = json.loads(self.machine.run(command, check=False).output)["requests"]
        return request["passes"] != []

    def without(self, capability):
        """The daemon goes on without it."""
        directory = "/run/systemd/system/kelvaned.service.d"
        restart = "systemctl daemon-reload && systemctl restart kelvaned.service"
        self.administrate(f"mkdir {directory} && printf '[Service]\\nCapabilityBoundingSet=~{capability}\\n' "
                          f">{directory}/less.conf && {restart}")
        self.addCleanup(self.administrate, f"rm -r {directory} && {restart}")

    def test_have_the_capability_to_reach_volumes_in_directories_of_users(self):
        late = "/home/user/late"
        self.machine.run(f"mkdir -p {late} && chown www-data /home/user && chmod 700 /home/user && "
                         f"mount -t ext4 /dev/disks/late {late}")
        self.addCleanup(self.machine.run, f"umount {late}")
        self.assertTrue(self.is_purged(late))
        self.without("CAP_DAC_OVERRIDE")
        self.assertFalse(self.is_purged(late))

    def test_have_the_capability_to_be_told_of_writes(self):
        process = "$(systemctl show --value --property=MainPID kelvaned.service)"
        marks = f"grep --quiet --recursive --no-messages 'fanotify sdev' /proc/{process}/fdinfo"
        refusals = "journalctl --unit=kelvaned.service | grep --quiet 'Nobody tells of writes'"
        self.machine.run(f"until {marks}; do sleep 0.5; done")
        self.assertEqual(1, self.machine.run(refusals, check=False).status)
        self.without("CAP_SYS_ADMIN")
        self.machine.run(f"until {refusals}; do sleep 0.5; done")
        self.assertEqual(1, self.machine.run(marks, check=False).status)

    def test_let_caches_be_purged(self):
        self.assert_purges()

    def test_let_a_volume_be_relieved(self):
        self.fill(12)
        self.addCleanup(self.machine.run, "rm /volumes/data/filler")
        self.machine.run(f"fallocate --length=$(($(stat --file-system --format='%a*%S' /volumes/data) - {10 * MIB})) "
                         f"/volumes/data/filler && while [ -n \"$(find {' '.join(DIRECTORIES)} -type f)\" ]; do "
                         "sleep 0.5; done")

    def test_stand_a_restart_and_a_kill(self):
        self.administrate("systemctl restart kelvaned.service")
        self.assert_purges()
        self.administrate("systemctl restart kelvaned.socket")
        self.assert_purges()
        self.administrate("systemctl kill --signal=KILL kelvaned.service")
        self.assert_purges()
        self.administrate(f"systemctl restart {CACHE_UNIT}")
        self.assert_purges()

    def test_let_a_cache_be_its_user_from_the_start(self):
        """And so without any capability."""
        directory = "/run/systemd/system/kelvane-directory-cache@.service.d"
        restart = f"systemctl daemon-reload && systemctl restart {CACHE_UNIT}"
        self.administrate(f"mkdir {directory} && printf '[Service]\\nUser=www-data\\nCapabilityBoundingSet=\\n"
                          f"SystemCallFilter=~@setuid\\n' >{directory}/user.conf && {restart}")
        self.addCleanup(self.administrate, f"rm -r {directory} && {restart}")
        self.assert_purges()

    def test_stand_a_stop_of_everything(self):
        units = "kelvaned.socket kelvaned-control.socket kelvaned.service"
        self.machine.run(f"systemctl stop {units}")
        self.assertEqual(3, self.machine.run("kelvanectl purgeable", check=False).status)
        self.administrate("systemctl start kelvaned.socket kelvaned-control.socket")
        self.assert_purges()


if __name__ == "__main__":
    unittest.main()
