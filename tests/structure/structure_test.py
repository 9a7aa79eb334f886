# SPDX-License-Identifier: Apache-2.0
# Checks this source tree by its rules, and the rules by small trees that break them.

import os
import subprocess
import tempfile
import unittest

import rules

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
LICENCE = f"// {rules.SPDX}\n"


class ThisTree(unittest.TestCase):
    """One test for each rule."""

    def test_has_sources(self):
        """Or the other tests would pass on nothing."""
        found = {rules.layer(path) for path in rules.files(TOP)}
        self.assertLessEqual({"platform", "platform/linux", "protocols", "support", "scripts", ".ci"}, found)

    def test_is_formatted(self):
        code = [path for path in rules.files(TOP) if path.endswith(rules.CODE)]
        result = subprocess.run(["clang-format", "--dry-run", "--Werror", *code], cwd=TOP, capture_output=True,
                                text=True, check=False)
        self.assertEqual((0, ""), (result.returncode, result.stderr))


def keeps(rule):
    def test(self):
        self.assertEqual([], list(rule(TOP)))
    test.__doc__ = rule.__doc__
    return test


for each in rules.ALL:
    setattr(ThisTree, f"test_keeps_{each.__name__}", keeps(each))


class Rules(unittest.TestCase):
    """Small trees, good and bad."""

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = directory.name

    def put(self, path, text):
        full = os.path.join(self.root, path)
        os.makedirs(os.path.dirname(full), exist_ok=True)
        with open(full, "w", encoding="utf-8") as file:
            file.write(text)

    def header(self, path, *includes):
        self.put(path, LICENCE + "".join(f"#include {include}\n" for include in includes))

    def assert_broken(self, rule, *expected):
        """Exactly these places break the rule."""
        self.assertEqual(sorted(expected), sorted(":".join(v.split(":")[:2]) for v in rule(self.root)))

    def test_accept_a_good_tree(self):
        self.header("platform/Value.h", "<string>")
        self.header("platform/linux/Bus.cpp", '"platform/Value.h"', "<systemd/sd-bus.h>", "<unistd.h>")
        self.header("platform/common/Xml.cpp", '"platform/Value.h"', "<expat.h>")
        self.header("protocols/Keys.h", '"platform/Value.h"')
        self.header("support/Call.h", '"protocols/Keys.h"', '"support/Call.h"', "<map>")
        self.header("daemon/Kelvane.cpp", '"support/Call.h"', "<vector>")
        self.header("tools/ctl/main.cpp", '"support/Call.h"', "<fmt/core.h>")
        self.header("tests/linux/BusTest.cpp", '"platform/Value.h"', "<gtest/gtest.h>", "<systemd/sd-bus.h>")
        self.put("scripts/run", f"#!/bin/sh\n# {rules.SPDX}\n")
        for rule in rules.ALL:
            self.assertEqual([], list(rule(self.root)), rule.__name__)

    def test_refuse_includes_that_point_upwards(self):
        self.header("daemon/Kelvane.h")
        self.header("platform/Queues.h")
        self.header("platform/linux/Bus.h")
        self.header("support/Call.h", '"daemon/Kelvane.h"')
        self.header("operations/Purge.h", '"daemon/Kelvane.h"')
        self.header("client/State.h", '"daemon/Kelvane.h"')
        self.header("protocols/Keys.h", '"support/Call.h"')
        self.header("platform/Value.h", '"support/Call.h"')
        self.header("platform/common/Text.h", '"platform/linux/Bus.h"')
        self.header("platform/simulated/Bus.h", '"platform/linux/Bus.h"')
        self.header("tools/ctl/main.cpp", '"daemon/Kelvane.h"')
        self.assert_broken(rules.include_direction, "support/Call.h:2", "operations/Purge.h:2", "client/State.h:2",
                           "protocols/Keys.h:2", "platform/Value.h:2", "platform/common/Text.h:2",
                           "platform/simulated/Bus.h:2", "tools/ctl/main.cpp:2")

    def test_refuse_rooms_of_the_binding_that_include_later_ones(self):
        self.header("platform/linux/runtime/Pool.h", '"platform/linux/volumes/Mounts.h"')
        self.header("platform/linux/volumes/Mounts.h", '"platform/linux/runtime/Pool.h"')
        self.header("platform/linux/system/Log.h", '"platform/linux/volumes/Mounts.h"', '"platform/linux/ipc/Peer.h"')
        self.header("platform/linux/ipc/Peer.h", '"platform/linux/system/Log.h"', '"platform/linux/ipc/Call.h"')
        self.header("platform/linux/ipc/Call.h", '"platform/linux/attic/Old.h"')
        self.header("platform/linux/attic/Old.h", '"platform/linux/runtime/Pool.h"')
        self.assert_broken(rules.linux_rooms, "platform/linux/runtime/Pool.h:2", "platform/linux/system/Log.h:3",
                           "platform/linux/ipc/Call.h:2", "platform/linux/attic/Old.h:2")

    def test_refuse_a_binding_in_the_core(self):
        self.header("platform/linux/Bus.h")
        self.header("daemon/main.cpp", '"platform/linux/Bus.h"')
        self.assert_broken(rules.include_direction, "daemon/main.cpp:2")

    def test_refuse_more_than_values_in_the_vocabulary(self):
        self.header("platform/Queues.h")
        self.header("protocols/Keys.h", '"platform/Queues.h"')
        self.assert_broken(rules.include_direction, "protocols/Keys.h:2")

    def test_refuse_a_directory_without_a_layer(self):
        self.header("platform/Value.h")
        self.header("extras/More.h", '"platform/Value.h"')
        self.assert_broken(rules.include_direction, "extras/More.h:2")

    def test_refuse_includes_that_are_no_paths(self):
        self.header("support/Call.h")
        self.header("support/Call.cpp", '"Call.h"', '"support/../support/Call.h"', '"support/Gone.h"',
                    "<support/Call.h>")
        self.assert_broken(rules.include_paths, *(f"support/Call.cpp:{line}" for line in (2, 3, 4, 5)))

    def test_refuse_third_party_headers_in_the_core(self):
        self.header("operations/Purge.cpp", "<fmt/core.h>", "<vector>", "<unistd.h>", "<systemd/sd-bus.h>")
        self.header("platform/Value.h", "<expat.h>")
        self.assert_broken(rules.third_party, "operations/Purge.cpp:2", "operations/Purge.cpp:4",
                           "operations/Purge.cpp:5", "platform/Value.h:2")

    def test_refuse_system_libraries_outside_the_platform(self):
        self.header("tools/ctl/main.cpp", "<systemd/sd-bus.h>")
        self.header("services/cache/Mounts.cpp", "<libmount/libmount.h>")
        self.header("tests/daemon/BusTest.cpp", "<expat.h>")
        self.assert_broken(rules.third_party, "tools/ctl/main.cpp:2", "services/cache/Mounts.cpp:2",
                           "tests/daemon/BusTest.cpp:2")

    def test_refuse_conditional_code_in_the_core(self):
        self.put("daemon/Kelvane.cpp", LICENCE + "#ifdef __linux__\n#endif\n")
        self.put("platform/linux/Bus.cpp", LICENCE + "#ifdef __linux__\n#endif\n")
        self.assert_broken(rules.conditional_code, "daemon/Kelvane.cpp:2")

    def test_refuse_sources_without_a_licence(self):
        self.put("support/Call.h", "#pragma once\n")
        self.put("support/Empty.cpp", "")
        self.put("support/Late.cpp", "\n" + LICENCE)
        self.put("support/CMakeLists.txt", "kelvane_library()\n")
        self.put("scripts/run", "#!/bin/sh\necho\n")
        self.assert_broken(rules.licence, "support/Call.h:1", "support/Empty.cpp:1", "support/Late.cpp:1",
                           "support/CMakeLists.txt:1", "scripts/run:2")

    def test_refuse_long_files(self):
        self.put("support/Long.cpp", "\n" * (rules.MAXIMUM_LINES + 1))
        self.put("support/Just.cpp", "\n" * rules.MAXIMUM_LINES)
        self.assert_broken(rules.length, f"support/Long.cpp:{rules.MAXIMUM_LINES + 1}")

    def test_refuse_text_about_the_making(self):
        bad = ("See Part 1" + ".2.", "the speci" + "fication says", "in spec" + ".md", "as Speci" + "fied",
               "cd /wo" + "rk/main", "// TO" + "DO: later", "fix" + "me", "X" + "XX")
        self.put("docs/bad.md", "\n".join(bad) + "\n")
        self.put("docs/good.md", "Part of it; mkstemp(\"/tmp/f.XXXXXX\"); workers/farms; specific\n")
        self.assert_broken(rules.foreign_text, *(f"docs/bad.md:{line}" for line in range(1, len(bad) + 1)))

    def test_skip_what_was_built(self):
        self.put("build/release/generated.cpp", "no licence\n")
        self.put("picture.svg", "/wo" + "rk/\n")
        self.assert_broken(rules.licence)
        self.assert_broken(rules.foreign_text)


if __name__ == "__main__":
    unittest.main()
