# SPDX-License-Identifier: Apache-2.0
# What is installed: that it is all there, that the units are right and that others can build against the library.

import os
import pathlib
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree

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
        result = run("cmake", "--install", BUILD, env={**os.environ, "DESTDIR": directory.name})
        if result.returncode != 0:
            raise RuntimeError(result.stderr)

    def installed(self, name):
        """The one file of this name."""
        (path,) = self.root.rglob(name)
        return path

    def test_has_the_programs(self):
        for name, directory in (("kelvaned", "libexec"), ("kelvanectl", "bin"), ("kelvane-directory-cache", "bin")):
            path = self.installed(name)
            self.assertTrue(os.access(path, os.X_OK), path)
            self.assertEqual(directory, path.parent.name)

    def test_has_directories_for_rules_and_descriptions(self):
        self.assertTrue((self.root / "usr/lib/kelvane/entitlements.d/50-root.plist").is_file())
        self.assertTrue((self.root / "etc/kelvane/entitlements.d").is_dir())
        self.assertIn("EndPassesEarly = YES;", (self.root / "etc/kelvane/kelvaned.plist").read_text())
        self.assertTrue((self.root / "System/Library/Kelvane").is_dir())

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


if __name__ == "__main__":
    unittest.main()
