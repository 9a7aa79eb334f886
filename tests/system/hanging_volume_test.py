# SPDX-License-Identifier: Apache-2.0
# That a hanging volume is a volume to the programs under test, and hangs for them.

import unittest

from kelvane_system import KELVANECTL, MIB, SystemTest, until


class Hanging(SystemTest):
    def test_is_a_volume_whose_space_the_clients_see(self):
        volume = self.hanging_volume()
        volume.set_free(100 * MIB)
        self.start_daemon()
        _, report = self.purge(volume, "10M", "--urgency=1")
        self.assertEqual((100 * MIB, 100 * MIB), (report["available_before"], report["available_after"]), report)

    def test_holds_who_asks_until_it_is_resumed(self):
        volume = self.hanging_volume()
        volume.hang("statfs")
        client = self.start("df", "df", volume.path)
        volume.await_held("statfs")
        self.assertTrue(client.is_running())
        volume.resume()
        self.assertEqual(0, client.wait())

    def test_is_told_of_by_a_command_with_a_path_in_it(self):
        self.start_daemon()
        volume = self.hanging_volume()
        volume.hang()
        client = self.start("kelvanectl", KELVANECTL, "purge", volume.path / "inside", "1M")
        until(lambda: "no such volume: /volumes/hanging/inside: Connection timed out" in client.log(), "an error")
        # A process can't end before its threads have.
        volume.resume()
        self.assertEqual(5, client.wait())


if __name__ == "__main__":
    unittest.main()
