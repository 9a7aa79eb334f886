# SPDX-License-Identifier: Apache-2.0
# What services could free, and what clients keep in the daemon: kelvanectl purgeable and state.

import json
import pathlib
import plistlib
import re
import signal
import subprocess
import unittest

from kelvane_system import KELVANECTL, MIB, PATIENCE_SECONDS, TOP, SystemTest, hold
from kelvane_system import run, until

RECORD = "KELVANE_RECENT_SERVICE_STATS"
SERVICE = "com.example.web"


class ClientTest(SystemTest):
    # What kelvanectl is run by.
    prefix = ()

    def setUp(self):
        super().setUp()
        log = pathlib.Path("/etc/kelvane/log.plist")
        log.write_bytes(plistlib.dumps({"Threshold": 5}))
        self.addCleanup(log.unlink)

    def ctl(self, *arguments, status=0, words=""):
        """Its output."""
        result = run(*self.prefix, KELVANECTL, *arguments)
        self.assertEqual(status, result.returncode, result.stderr)
        self.assertIn(words, result.stderr)
        return result.stdout

    def start_all(self):
        """A volume, the daemon, and a service with 4 MiB each for the urgencies 1 and 2."""
        self.data = self.volume()
        self.daemon = self.start_daemon()
        self.service = self.start_service(SERVICE, self.fill(self.data, SERVICE))

    def query(self, *options):
        """The report about the one volume."""
        report = json.loads(self.ctl("purgeable", "--json", self.data, *options))
        self.assertEqual(("answered", None), (report["ending"], report["error"]))
        (volume,) = report["volumes"]
        self.assertEqual(str(self.data), volume["volume"])
        return volume

    def settled(self, *options):
        """The same, once the service has answered and nobody is waited for."""
        return until(lambda: (volume := self.query(*options))["services"] and volume["complete"] and volume, "answers")

    def asked(self):
        """How often services were asked."""
        return self.daemon.log().count("^^^asking ")


class Queries(ClientTest):
    def test_once_cold_and_then_warm_ask_nobody_again(self):
        self.start_all()
        cold = self.settled()
        self.assertEqual([{"id": SERVICE, "bytes": 8 * MIB}], cold["services"])
        self.assertEqual(8 * MIB, cold["total"])
        asked, cached = self.asked(), self.daemon.log().count("using all cached info")
        self.assertGreaterEqual(asked, 1)
        warm = self.query()
        self.assertEqual((cold["total"], cold["services"]), (warm["total"], warm["services"]))
        self.assertEqual(asked, self.asked())
        self.assertGreater(self.daemon.log().count("using all cached info"), cached)

    def test_ask_again_once_much_has_changed(self):
        self.start_all()
        self.settled()
        asked = self.asked()
        (self.data.path / "file").write_bytes(bytes(8 * MIB))
        self.assertEqual(8 * MIB, self.settled()["total"])
        self.assertGreater(self.asked(), asked)

    def test_go_by_the_urgency_when_nothing_is_remembered(self):
        self.start_all()
        self.assertEqual(4 * MIB, self.settled("--urgency=1")["total"])
        # An answer stands whatever urgency it was given at.
        self.assertEqual(4 * MIB, self.settled("--urgency=4")["total"])
        self.ctl("state", "unset", RECORD)
        self.assertEqual(8 * MIB, self.settled("--urgency=4")["total"])

    def test_tell_people_with_a_bar_and_how_old_it_may_be(self):
        self.start_all()
        self.settled()
        self.assertTrue(self.ctl("purgeable", self.data).startswith(
            f"{self.data}\n"
            f"  {SERVICE:<44}      8.0 MiB  ####################\n"
            f"  {'total':<44}      8.0 MiB\n"
            "Figures may be up to 120 s old, and given at another urgency.\n"))

    def test_say_when_somebody_has_not_answered_and_count_it_later(self):
        self.start_all()
        hold(self.service)
        held = self.query("--urgency=1")
        self.assertEqual((False, 0, []), (held["complete"], held["total"], held["services"]))
        self.assertIn("Some services may not have answered yet.\n", self.ctl("purgeable", self.data))
        self.service.send(signal.SIGCONT)
        self.assertEqual(SERVICE, self.settled()["services"][0]["id"])

    def test_without_a_volume_go_to_all(self):
        self.start_all()
        other = self.volume("other")
        self.settled()
        report = json.loads(self.ctl("purgeable", "--json"))
        totals = {volume["volume"]: volume["total"] for volume in report["volumes"]}
        self.assertEqual(8 * MIB, totals[str(self.data)])
        self.assertIn(str(other), totals)

    def test_go_to_all_but_one_whose_name_is_no_text(self):
        self.start_all()
        self.volume("\udcff")
        report = json.loads(self.ctl("purgeable", "--json", status=4, words=r"/volumes/\xff is no volume"))
        self.assertEqual("refused", report["ending"])
        self.assertIn(str(self.data), [volume["volume"] for volume in report["volumes"]])
        self.assertIn(str(self.data), self.ctl("purgeable", status=4))

    def test_go_to_several_volumes(self):
        self.start_all()
        other = self.volume("other")
        report = json.loads(self.ctl("purgeable", "--json", other, self.data))
        self.assertEqual([str(other), str(self.data)], [volume["volume"] for volume in report["volumes"]])

    def test_have_a_status_for_each_failure(self):
        self.data = self.volume()
        self.ctl("purgeable", self.data, status=3, words="the daemon does not run")
        self.ctl("state", "list", status=3, words="the daemon does not run")
        self.start_daemon()
        self.ctl("purgeable", "/nowhere", status=5, words="no such volume")
        report = json.loads(self.ctl("purgeable", "--json", "/nowhere", status=5))
        self.assertEqual(("no-volume", []), (report["ending"], report["volumes"]))
        self.ctl("purgeable", "--urgency=5", self.data, status=2)

    def test_end_when_interrupted(self):
        self.start_all()
        hold(self.daemon)
        for command in (("purgeable", str(self.data)), ("state", "list")):
            with subprocess.Popen([str(KELVANECTL), *command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, text=True) as client:
                # A signal that comes before it is watched for ends the process as well, but not in this way.
                until(lambda: "SigBlk:\t0000000000004002" in pathlib.Path(f"/proc/{client.pid}/status").read_text(),
                      "a client that watches")
                client.send_signal(signal.SIGTERM)
                _, errors = client.communicate(timeout=PATIENCE_SECONDS)
            self.assertEqual((130, "kelvanectl: interrupted\n"), (client.returncode, errors))


class Rights(ClientTest):
    """What a client may ask goes by who it is."""

    def setUp(self):
        super().setUp()
        self.user, self.prefix = self.plain_user()
        self.data = self.volume()

    def start_for(self, *names):
        self.entitle(self.user, "CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT", *names)
        self.daemon = self.start_daemon()

    def test_to_figures_are_two(self):
        self.start_for("PURGEABLE_ENTITLEMENT")
        self.ctl("purgeable", self.data)
        self.ctl("purgeable", "--itemized", self.data, status=4, words="ITEMIZED_PURGEABLE_ENTITLEMENT")

    def test_to_itemized_figures_are_no_right_to_the_others(self):
        self.start_for("ITEMIZED_PURGEABLE_ENTITLEMENT")
        self.start_service(SERVICE, self.fill(self.data, SERVICE))
        self.ctl("purgeable", self.data, status=4, words="lack PURGEABLE_ENTITLEMENT")
        self.assertEqual(8 * MIB, self.settled("--itemized")["total"])

    def test_to_state_are_those_of_every_client(self):
        self.start_for()
        self.ctl("state", "set", "key", "5")
        self.assertEqual("5\n", self.ctl("state", "get", "key"))


class State(ClientTest):
    def setUp(self):
        super().setUp()
        self.daemon = self.start_daemon()

    def test_is_set_read_and_removed(self):
        self.assertEqual("", self.ctl("state", "list"))
        self.ctl("state", "set", "number", "-5")
        self.ctl("state", "set", "text", "--string", "two words")
        self.ctl("state", "set", "list", "{ a = (1, <0fbd>); }")
        self.assertEqual("-5\n", self.ctl("state", "get", "number"))
        self.assertEqual("two words\n", self.ctl("state", "get", "text"))
        self.assertEqual({"a": ["1", "0fbd"]}, json.loads(self.ctl("state", "get", "--json", "list")))
        self.assertEqual({"KELVANE_CACHE_ENABLED": True, "number": -5, "text": "two words", "list": {"a": ["1", "0fbd"]}},
                         json.loads(self.ctl("state", "list", "--json")))
        self.assertEqual(["KELVANE_CACHE_ENABLED", "list", "number", "text"],
                         [line.split()[0] for line in self.ctl("state", "list").splitlines()])
        self.ctl("state", "unset", "number")
        self.assertEqual("", self.ctl("state", "get", "number", status=1, words="no value under number"))

    def test_survives_the_death_of_the_daemon(self):
        self.ctl("state", "set", "removed", "1")
        self.ctl("state", "set", "kept", "<plist><dict><key>n</key><integer>3</integer></dict></plist>")
        self.ctl("state", "unset", "removed")
        self.daemon.send(signal.SIGKILL)
        self.daemon.wait()
        self.daemon = self.start_daemon()
        self.assertEqual({"KELVANE_CACHE_ENABLED": True, "kept": {"n": 3}},
                         json.loads(self.ctl("state", "list", "--json")))
        self.ctl("state", "get", "removed", status=1)

    def set_from_input(self, value, *options):
        return subprocess.run([str(KELVANECTL), "state", "set", "key", "-", *options], input=value,
                              capture_output=True, timeout=PATIENCE_SECONDS, check=False)

    def test_over_a_mebibyte_is_refused_and_the_old_one_stays(self):
        self.ctl("state", "set", "key", "old")
        result = self.set_from_input(b"x" * (MIB + 1), "--string")
        self.assertEqual(6, result.returncode)
        self.assertIn(b"LimitsExceeded", result.stderr)
        self.assertEqual("old\n", self.ctl("state", "get", "key"))
        self.assertEqual(2, self.set_from_input(b"x" * (4 * MIB), "--string").returncode)
        self.assertEqual("old\n", self.ctl("state", "get", "key"))

    def test_of_a_mebibyte_comes_back_whole(self):
        value = b"x" * MIB
        self.assertEqual(0, self.set_from_input(value, "--string").returncode)
        self.assertEqual(value.decode() + "\n", self.ctl("state", "get", "key"))

    def test_is_read_from_binary_property_lists(self):
        value = plistlib.dumps({"n": [1, True, 2.5]}, fmt=plistlib.FMT_BINARY)
        self.assertEqual(0, self.set_from_input(value).returncode)
        self.assertEqual({"n": [1, True, 2.5]}, json.loads(self.ctl("state", "get", "--json", "key")))

    def test_is_left_alone_by_a_value_that_cannot_be_read(self):
        self.ctl("state", "set", "key", "old")
        self.ctl("state", "set", "key", "{ a = ", status=2, words="no property list")
        self.assertEqual("old\n", self.ctl("state", "get", "key"))


class Page(unittest.TestCase):
    def test_tells_of_every_option(self):
        page = (TOP / "docs/kelvanectl.md").read_text()
        for command in (["purgeable"], *(["state", name] for name in ("get", "set", "unset", "list"))):
            for option in re.findall(r"--[a-z]+", run(KELVANECTL, *command, "--help").stdout):
                if option != "--help":
                    self.assertIn(f"`{option}", page)
                    self.assertIn(" ".join(command), page)


if __name__ == "__main__":
    unittest.main()
