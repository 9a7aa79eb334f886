# SPDX-License-Identifier: Apache-2.0
# What the daemon has the capabilities for that its unit leaves it. Of the others see tests/machine.

import re
import unittest

from kelvane_system import ENTITLEMENTS, KELVANECTL, KELVANED, TOP, SystemTest, run


class Capabilities(SystemTest):
    UNIT = (TOP / "packaging/systemd/kelvaned.service.in").read_text()

    def start_daemon_without(self, *capabilities):
        (line,) = re.findall("^CapabilityBoundingSet=(.*)$", self.UNIT, re.MULTILINE)
        left = [f"+{name.removeprefix('CAP_').lower()}" for name in line.split() if name not in capabilities]
        daemon = self.start("kelvaned", "setpriv", "--inh-caps=-all", f"--bounding-set={','.join(('-all', *left))}",
                            KELVANED)
        self.await_daemon(daemon)

    def status_of_a_client_by_its_program(self):
        user, prefix = self.plain_user()
        (ENTITLEMENTS / "program.plist").write_text(
            f'{{ User = "{user}"; Executable = "{KELVANECTL}"; '
            "Entitlements = (CLIENT_ENTITLEMENT, PURGEABLE_ENTITLEMENT); }")
        return lambda: run(*prefix, KELVANECTL, "purgeable").returncode

    def test_show_which_program_a_client_runs(self):
        status = self.status_of_a_client_by_its_program()
        self.start_daemon_without()
        self.assertEqual(0, status())

    def test_do_not_without_that_of_tracing(self):
        status = self.status_of_a_client_by_its_program()
        self.start_daemon_without("CAP_SYS_PTRACE")
        self.assertEqual(4, status())


if __name__ == "__main__":
    unittest.main()
