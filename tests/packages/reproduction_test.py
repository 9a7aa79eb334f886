# SPDX-License-Identifier: Apache-2.0
# That packages made another time, elsewhere and by somebody with other habits are the same to the byte.

import filecmp
import os
import subprocess
import tempfile
import unittest

from packages import NAMES, PACKAGES, TOP

# What builds have been seen to depend on, with values that nobody's build is likely to have.
HABITS = {"TZ": "Pacific/Kiritimati", "LC_ALL": "C", "LANG": "C", "HOME": "/nonexistent", "USER": "another",
          "CCACHE_DISABLE": "1"}


class Reproduction(unittest.TestCase):
    def test_gives_the_same_bytes(self):
        with tempfile.TemporaryDirectory(prefix="kelvane-another-place-") as directory:
            subprocess.run(["sh", "-c", 'umask 077 && exec "$@"', "sh", TOP / "scripts/package", directory],
                           stdin=subprocess.DEVNULL, env={**os.environ, **HABITS}, check=True)
            made = {path.name for path in PACKAGES.glob("*.deb")} | {path.name for path in PACKAGES.glob("*.tar.xz")}
            self.assertGreater(len(made), len(NAMES) + 1)
            _, mismatched, missing = filecmp.cmpfiles(PACKAGES, directory, made, shallow=False)
            self.assertEqual(([], []), (mismatched, missing))


if __name__ == "__main__":
    unittest.main()
