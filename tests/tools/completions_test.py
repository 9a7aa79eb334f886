# SPDX-License-Identifier: Apache-2.0
# What shells complete of a kelvanectl command line: every command and option that there is, and no others.

import pathlib
import re
import subprocess
import unittest

from program_help import commands, options

COMPLETIONS = pathlib.Path(__file__).resolve().parents[2] / "packaging/completions"
BASH = """
source "$1"
shift
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
_kelvanectl
printf '%s\\n' "${COMPREPLY[@]}"
"""
FISH = """
source $argv[1]
complete --do-complete "$argv[2]"
"""


def run(*command):
    result = subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                            timeout=60, check=False)
    if (result.returncode, result.stderr) != (0, ""):
        raise RuntimeError(f"{command}: {result.returncode}, {result.stderr}")
    return result.stdout


def of_bash(*words):
    """What bash offers for the last of the words."""
    return run("bash", "--norc", "-c", BASH, "bash", COMPLETIONS / "kelvanectl.bash", "kelvanectl", *words).split()


def of_fish(*words):
    lines = run("fish", "--no-config", "--command", FISH, COMPLETIONS / "kelvanectl.fish",
                " ".join(("kelvanectl", *words))).splitlines()
    return [line.split("\t")[0] for line in lines]


class Completions(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        """The long options of every command, and the names of commands beneath each."""
        cls.options = {words: {name for names in options(text) for name in names if name.startswith("--")}
                       for words, text in commands()}
        cls.commands = {}
        for words in cls.options:
            for length in range(len(words)):
                cls.commands.setdefault(words[:length], set()).add(words[length])
        assert cls.commands[()] >= {"purge", "state"}

    def complete(self, offered):
        for words, names in self.commands.items():
            with self.subTest(words=words):
                self.assertEqual(names, {name for name in offered(*words, "") if not name.startswith("-")})
        for words, names in self.options.items():
            with self.subTest(words=words):
                self.assertEqual(names | {"--help"}, set(offered(*words, "--")))

    def test_of_bash_are_complete(self):
        self.complete(of_bash)

    def test_of_bash_have_values_and_directories(self):
        self.assertEqual(["1", "2", "3", "4"], of_bash("purge", "--urgency", ""))
        self.assertEqual(["purgeable"], of_bash("purgea"))
        self.assertIn("/usr", of_bash("purge", "--json", "/us"))
        self.assertEqual(["--json"], of_bash("state", "get", "--j"))

    def test_of_fish_are_complete(self):
        self.complete(of_fish)

    def test_of_fish_have_values(self):
        self.assertEqual(["1", "2", "3", "4"], of_fish("purge", "--urgency", "''"))

    def test_of_zsh_are_complete(self):
        run("zsh", "-n", COMPLETIONS / "_kelvanectl")
        text = (COMPLETIONS / "_kelvanectl").read_text(encoding="utf-8")
        described = re.findall(r"^    '([a-z-]+):", text, re.MULTILINE)
        self.assertEqual(sorted(name for names in self.commands.values() for name in names - {"state"}),
                         sorted(set(described) - {"state"}))
        for words, names in self.options.items():
            # From its case to the end of that.
            (case,) = re.findall(rf"^ +{words[-1]}\)(.*?);;", text, re.MULTILINE | re.DOTALL)
            self.assertEqual(names | {"--help"}, set(re.findall(r"--[a-z]+(?=[\[}])", case)), words)


if __name__ == "__main__":
    unittest.main()
