# SPDX-License-Identifier: Apache-2.0
# The daemon's state on an ext4 whose disk or power fails under load, again and again.

import unittest

from durability import DurabilityTest


class State(DurabilityTest):
    def test_has_what_was_acknowledged_after_cuts_of_power(self):
        self.live_and_die("ext4", lives=3)

    def test_has_what_was_acknowledged_after_failures_of_the_disk(self):
        self.fail_and_die("ext4", lives=3)


if __name__ == "__main__":
    unittest.main()
