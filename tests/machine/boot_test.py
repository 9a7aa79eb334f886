# SPDX-License-Identifier: Apache-2.0
# That the machine boots, and that in it the units do what they are for.

import json
import unittest

from machine import Machine


class Boot(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.machine = cls.enterClassContext(Machine())
        cls.machine.run("systemctl is-system-running --wait")

    def test_tells_what_commands_say_and_how_they_end(self):
        result = self.machine.run("echo said; echo complained >&2; exit 3", check=False)
        self.assertEqual((3, "said\n", "complained\n"), result)

    def test_runs_commands_at_once(self):
        reader = self.machine.begin("mkfifo /run/fifo; read -r line </run/fifo; echo $line")
        self.machine.run("until [ -p /run/fifo ]; do :; done; echo through >/run/fifo")
        self.assertEqual("through\n", reader.wait().output)

    def test_finds_no_unit_that_failed(self):
        self.assertEqual("", self.machine.run("systemctl --failed --plain --no-legend").output)

    def test_has_the_sockets_and_the_daemon_up(self):
        units = "kelvaned.socket kelvaned-control.socket kelvaned.service"
        self.assertEqual("active\n" * 3, self.machine.run(f"systemctl is-active {units}").output)

    def test_has_a_daemon_that_has_not_been_started_again(self):
        self.assertEqual("0\n", self.machine.run("systemctl show --value -p NRestarts kelvaned.service").output)

    def test_answers_a_query_through_the_socket_that_starts_the_daemon(self):
        self.machine.run("systemctl stop kelvaned.service")
        self.assertEqual("inactive\n", self.machine.run("systemctl is-active kelvaned.service", check=False).output)
        report = json.loads(self.machine.run("kelvanectl purgeable --json").output)
        self.assertIn("/", [volume["volume"] for volume in report["volumes"]], report)
        self.assertEqual("active\n", self.machine.run("systemctl is-active kelvaned.service").output)

    def test_has_a_daily_maintenance_ahead(self):
        timers = json.loads(self.machine.run("systemctl list-timers --output=json").output)
        (timer,) = (timer for timer in timers if timer["unit"] == "kelvane-daily.timer")
        self.assertEqual("kelvane-daily.service", timer["activates"])
        self.assertGreater(timer["next"], 0)

    def test_does_the_daily_maintenance(self):
        self.machine.run("systemctl start kelvane-daily.service")
        self.assertEqual("success\n", self.machine.run("systemctl show --value -p Result kelvane-daily.service").output)


if __name__ == "__main__":
    unittest.main()
