# SPDX-License-Identifier: Apache-2.0
# What every program of this tree does at a terminal: its version, its help, arguments that it does not know, and output
# that nobody takes.

import os
import pathlib
import re
import subprocess
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["KELVANE_BUILD"])
PROGRAMS = {name: BUILD / directory / name for name, directory in (
    ("kelvaned", "daemon"), ("kelvanectl", "tools/kelvanectl"), ("kelvane-directory-cache", "services/directory-cache"))}
# How a program that could not write its help or version ends.
UNWRITTEN = {"kelvaned": 1, "kelvanectl": 7, "kelvane-directory-cache": 1}


def run(*command, **options):
    return subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                          timeout=60, check=False, **{"stdout": subprocess.PIPE, **options})


class EveryProgram(unittest.TestCase):
    def test_tells_its_version(self):
        (version,) = re.findall(r"^project\(kelvane VERSION (\S+)", (TOP / "CMakeLists.txt").read_text(), re.MULTILINE)
        for name, path in PROGRAMS.items():
            result = run(path, "--version")
            self.assertEqual((0, f"{name} {version}\n", ""), (result.returncode, result.stdout, result.stderr))

    def test_explains_itself_with_examples_and_exit_statuses(self):
        for name, path in PROGRAMS.items():
            result = run(path, "--help")
            self.assertEqual((0, ""), (result.returncode, result.stderr))
            self.assertRegex(result.stdout, f"(?m)^Usage: {name}")
            self.assertRegex(result.stdout, r"(?m)^Examples:$")
            self.assertRegex(result.stdout, r"(?m)^Exit status:\n  0 ")

    def test_refuses_arguments_that_it_does_not_know(self):
        for name, path in PROGRAMS.items():
            for arguments in (("--frobnicate",), ("--version", "--frobnicate"), ("one", "two")):
                result = run(path, *arguments)
                if name != "kelvaned" and arguments[0] == "--version":
                    # Said at once, whatever comes then.
                    self.assertEqual(0, result.returncode)
                    continue
                self.assertEqual((2, ""), (result.returncode, result.stdout), arguments)
                self.assertTrue(result.stderr.startswith(f"{name}: "), result.stderr)
                self.assertRegex(result.stderr, rf"(?m)^(Usage: {name} |See {name} --help)")

    def test_says_when_its_output_is_not_taken(self):
        for name, path in PROGRAMS.items():
            for option in ("--help", "--version"):
                with open("/dev/full", "w", encoding="ascii") as full:
                    result = run(path, option, stdout=full)
                self.assertEqual(UNWRITTEN[name], result.returncode)
                self.assertTrue(result.stderr.startswith(f"{name}: cannot write to standard output"), result.stderr)

    def test_shows_arguments_so_that_no_terminal_obeys_them(self):
        for name, path in PROGRAMS.items():
            configuration = ("configuration",) if name == "kelvane-directory-cache" else ()
            result = run(path, *configuration, "--evil\x1b[2J\u202e")
            self.assertEqual(2, result.returncode)
            self.assertIn(r"evil\x1b[2J\u{202e}", result.stderr)
            self.assertNotIn("\x1b", result.stderr)

    def test_take_no_line_of_their_own_from_an_argument(self):
        for arguments in (("purge", "/nowhere\nkelvanectl: forged", "1M"), ("puge\nkelvanectl: forged",)):
            result = run(PROGRAMS["kelvanectl"], *arguments)
            self.assertNotEqual(0, result.returncode)
            self.assertNotIn("\nkelvanectl: forged", result.stderr)
            self.assertIn(r"\nkelvanectl: forged", result.stderr)


if __name__ == "__main__":
    unittest.main()
