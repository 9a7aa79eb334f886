# SPDX-License-Identifier: Apache-2.0
# What is installed: that it is all there, that the units are right and that others can build against the library.

import os
import pathlib
import re
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["KELVANE_BUILD"])

EXAMPLE = """
#include <cstdio>

#include "support/KelvaneClient.h"
#include "support/KelvaneService.h"

class Example : public kelvane::KelvaneService {
 public:
  Example() : KelvaneService({.identifier = "com.example.service"}) {}

 protected:
  std::uint64_t purge(const kelvane::SpaceRequest& request, const kelvane::Cancellation&) override {
    return request.amount;
  }
};

int main() {
  const Example service;
  const kelvane::KelvaneClient client;
  const bool alone = client.cancelPurge({}).status == kelvane::KelvaneClientResult::Status::NoDaemon;
  std::puts(alone ? service.configuration().identifier.c_str() : "somebody is there");
}
"""


def run(*command, **options):
    return subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          check=False, **options)


class Installation(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        cls.root = pathlib.Path(directory.name)
        result = run("cmake", "--install", BUILD, "--prefix=/usr", env={**os.environ, "DESTDIR": directory.name})
        if result.returncode != 0:
            raise RuntimeError(result.stderr)
        # The system's own, by which a unit may run things.
        (cls.root / "bin").mkdir()
        (cls.root / "bin/sh").touch(mode=0o755)

    def installed(self, name):
        """The one file of this name."""
        (path,) = self.root.rglob(name)
        return path

    def test_has_the_programs(self):
        for name, directory in (("kelvaned", "libexec"), ("kelvanectl", "bin"), ("kelvane-directory-cache", "bin")):
            path = self.root / "usr" / directory / name
            self.assertTrue(os.access(path, os.X_OK), path)

    def test_has_directories_for_rules_and_descriptions(self):
        self.assertTrue((self.root / "usr/lib/kelvane/entitlements.d/50-root.plist").is_file())
        self.assertTrue((self.root / "etc/kelvane/entitlements.d").is_dir())
        self.assertIn("EndPassesEarly = YES;", (self.root / "etc/kelvane/kelvaned.plist").read_text())
        self.assertTrue((self.root / "System/Library/Kelvane").is_dir())

    def test_has_manual_pages_with_the_paths_of_this_installation(self):
        for page in (TOP / "docs/man").iterdir():
            text = self.installed(page.name).read_text()
            self.assertEqual(self.root / f"usr/share/man/man{page.name[-1]}" / page.name, self.installed(page.name))
            self.assertNotIn("@", text.replace("kelvane-directory-cache@com.example", ""))
            for path in re.findall(r"/usr/share/doc/\S+", text):
                self.assertTrue((self.root / path.lstrip("/")).is_file(), path)
        self.assertIn("/usr/share/doc/kelvane/docs/protocol.md", self.installed("kelvane-protocol.7").read_text())

    def test_has_completions_where_shells_look_for_them(self):
        for path in ("bash-completion/completions/kelvanectl", "zsh/vendor-completions/_kelvanectl",
                     "fish/vendor_completions.d/kelvanectl.fish"):
            self.assertTrue((self.root / "usr/share" / path).is_file(), path)

    def test_has_documents_that_find_each_other(self):
        directory = self.root / "usr/share/doc/kelvane"
        links = 0
        for document in directory.rglob("*.md"):
            for target in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", document.read_text()):
                self.assertTrue((document.parent / target).exists(), f"{document.name}: {target}")
                links += 1
        self.assertGreater(links, 30)
        for unit in (self.root / "usr/lib/systemd/system").iterdir():
            for path in re.findall(r"file:(\S+)", unit.read_text()):
                self.assertTrue((self.root / path.lstrip("/")).is_file(), f"{unit.name}: {path}")

    def test_has_units_that_systemd_understands(self):
        units = sorted((self.root / "usr/lib/systemd/system").iterdir())
        self.assertLessEqual({"kelvaned.service", "kelvaned.socket", "kelvaned-control.socket", "kelvane-daily.service",
                              "kelvane-daily.timer"},
                             {unit.name for unit in units})
        for unit in units:
            # Other units that these refer to are not in this root.
            result = run("systemd-analyze", "verify", "--man=no", "--recursive-errors=no", f"--root={self.root}", unit)
            self.assertEqual((0, ""), (result.returncode, result.stderr), unit.name)

    def test_has_units_that_are_restricted(self):
        # In tenths of what systemd-analyze calls exposure, at most. Those that look after volumes see all mounts.
        for unit, exposure in (("kelvaned.service", 33), ("kelvane-directory-cache@cache.service", 31),
                               ("kelvane-daily.service", 10)):
            result = run("systemd-analyze", "security", "--offline=yes", f"--threshold={exposure}", f"--root={self.root}",
                         unit)
            self.assertEqual(0, result.returncode, result.stdout[-200:] + result.stderr)

    def test_has_the_interfaces_where_tools_look_for_them(self):
        for name in ("KelvaneClientProtocol", "KelvaneServiceProtocol", "KelvanePlatform"):
            path = self.installed(f"com.tessaly.{name}.xml")
            self.assertEqual(("share", "dbus-1", "interfaces"), path.parent.parts[-3:])
            root = xml.etree.ElementTree.parse(path).getroot()
            self.assertEqual([f"com.tessaly.{name}"], [interface.get("name") for interface in root.iter("interface")])

    def unit(self, name):
        """The settings of a unit, as "Name=value"."""
        return (self.root / "usr/lib/systemd/system" / name).read_text().splitlines()

    def test_has_a_daemon_that_is_started_again_whatever_ends_it(self):
        self.assertLessEqual({"Type=notify", "Restart=always", "StartLimitIntervalSec=0", "WatchdogSec=5min",
                              "WatchdogSignal=SIGKILL"}, set(self.unit("kelvaned.service")))

    def test_has_a_daemon_that_reads_its_rules_again_when_it_is_asked_to(self):
        self.assertIn("ExecReload=/bin/sh -c 'kill -HUP $MAINPID'", self.unit("kelvaned.service"))

    def test_has_a_daily_maintenance_that_is_made_up_for(self):
        self.assertLessEqual({"OnCalendar=daily", "Persistent=true", "WantedBy=timers.target"},
                             set(self.unit("kelvane-daily.timer")))
        (command,) = (line for line in self.unit("kelvane-daily.service") if line.startswith("ExecStart="))
        program, *arguments = command.removeprefix("ExecStart=").split()
        result = run(self.root / program.lstrip("/"), *arguments, "--help")
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        self.assertIn("daily maintenance", result.stdout)

    def test_refuses_units_with_mistakes(self):
        """Or the test above could not fail."""
        unit = self.root / "usr/lib/systemd/system/broken.service"
        unit.write_text("[Service]\nExecStart=/usr/libexec/nothing-there\nWatchdogSec=soon\n")
        self.addCleanup(unit.unlink)
        result = run("systemd-analyze", "verify", "--man=no", "--recursive-errors=no", f"--root={self.root}", unit)
        self.assertNotEqual((0, ""), (result.returncode, result.stderr))

    def test_lets_others_build_services_and_clients(self):
        source = self.root / "example.cpp"
        source.write_text(EXAMPLE)
        package = self.installed("kelvane.pc")
        flags = run("pkg-config", "--cflags", "--libs", "kelvane",
                    env={**os.environ, "PKG_CONFIG_SYSROOT_DIR": str(self.root),
                         "PKG_CONFIG_PATH": str(package.parent)})
        self.assertEqual(0, flags.returncode, flags.stderr)
        program = self.root / "example"
        built = run("g++", source, "-o", program, *flags.stdout.split())
        self.assertEqual(0, built.returncode, built.stderr)
        self.assertEqual("com.example.service\n", run(program).stdout)


class InstallationBeneathAPrefix(unittest.TestCase):
    """As by somebody who may write nowhere else."""

    # All that can be written to becomes read-only, but for the prefix and where the build keeps what it installs.
    ALONE = """
set -e
for kept in "$1" "$2"; do mount --bind "$kept" "$kept"; done
findmnt --noheadings --raw --output TARGET | while read -r target; do
  case $target in
    "$1" | "$2" | /proc* | /sys* | /dev*) ;;
    *) mount -o remount,bind,ro "$target" ;;
  esac
done
if touch /etc/probe 2>/dev/null; then exit 1; fi
exec cmake --install "$2" --prefix "$1"
"""

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.prefix = pathlib.Path(directory.name)
        result = run("unshare", "--mount", "sh", "-c", self.ALONE, "sh", self.prefix, BUILD)
        self.assertEqual(0, result.returncode, result.stderr)

    def test_writes_nothing_outside_it(self):
        for path in ("bin/kelvanectl", "libexec/kelvaned", "lib/systemd/system/kelvaned.socket",
                     "lib/kelvane/entitlements.d/50-root.plist", "etc/kelvane/kelvaned.plist", "System/Library/Kelvane",
                     "etc/kelvane/directory-cache", "share/man/man8/kelvaned.8"):
            self.assertTrue((self.prefix / path).exists(), path)

    def test_has_programs_that_run_and_units_that_start_them(self):
        result = run(self.prefix / "bin/kelvanectl", "--version")
        self.assertEqual(0, result.returncode, result.stderr)
        unit = (self.prefix / "lib/systemd/system/kelvaned.service").read_text()
        self.assertIn(f"ExecStart={self.prefix}/libexec/kelvaned\n", unit)
        (package,) = self.prefix.rglob("kelvane.pc")
        flags = run("pkg-config", "--cflags", "kelvane", env={**os.environ, "PKG_CONFIG_PATH": str(package.parent)})
        self.assertIn(f"-I{self.prefix}/include/kelvane", flags.stdout, flags.stderr)


if __name__ == "__main__":
    unittest.main()
