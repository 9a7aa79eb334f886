# SPDX-License-Identifier: Apache-2.0
# The manual pages and what the programs tell of themselves: each names what the other does.

import pathlib
import re
import subprocess
import unittest

from program_help import BUILD, KELVANECTL, commands, help_of, options, statuses

TOP = pathlib.Path(__file__).resolve().parents[2]
PAGES = TOP / "docs/man"


def source(page):
    return (PAGES / page).read_text()


def flags(line):
    """The names of the option that a list item of a page is about."""
    return frozenset("-" + name for name in re.findall(r"(?:Fl|,) (-?[a-z][a-z-]*)", line))


def page_statuses(text):
    (section,) = re.findall(r"^\.Sh EXIT STATUS\n(.*?)^\.Sh ", text, re.MULTILINE | re.DOTALL)
    return [int(number) for number in re.findall(r"^\.It (\d+)$", section, re.MULTILINE)]


def page_commands(text):
    """The options of each command, by its words."""
    result = {}
    for line in re.findall(r"^\.It (.*)$", text, re.MULTILINE):
        if command := re.match(r"Cm ((?:state )?[a-z-]+)", line):
            options_of = result.setdefault(tuple(command[1].split()), set())
        elif line.startswith("Fl "):
            options_of.add(flags(line))
    return result


class ManualPages(unittest.TestCase):
    def test_are_what_mandoc_likes(self):
        pages = sorted(PAGES.iterdir())
        self.assertLessEqual({"kelvaned.8", "kelvanectl.1", "kelvane-directory-cache.8", "volumes.plist.5", "log.plist.5",
                              "kelvaned.plist.5", "entitlements.5", "kelvane-descriptions.5", "kelvane-protocol.7"},
                             {page.name for page in pages})
        for page in pages:
            result = subprocess.run(["mandoc", "-Tlint", page.name], cwd=PAGES, stdin=subprocess.DEVNULL,
                                    capture_output=True, text=True, check=False)
            # Which others are installed here is no matter of the page's.
            found = [line for line in result.stdout.splitlines() if "referenced manual not found" not in line]
            self.assertEqual([], found)

    def test_refer_to_each_other_by_the_names_that_there_are(self):
        names = {page.name for page in PAGES.iterdir()}
        of_others = {"systemd.1", "journalctl.1", "busctl.1", "systemd.socket.5"}
        for page in sorted(names):
            text = source(page)
            self.assertIn(f".Dt {page.rpartition('.')[0].upper()} {page[-1]}\n", text)
            for name, section in re.findall(r"^\.Xr (\S+) (\d)", text, re.MULTILINE):
                self.assertIn(f"{name}.{section}", names | of_others, page)
                self.assertNotEqual(f"{name}.{section}", page)

    def test_have_every_command_and_option_of_kelvanectl_and_no_others(self):
        told = {words: options(text) for words, text in commands()}
        self.assertIn(("state", "get"), told)
        self.assertEqual(told, page_commands(source("kelvanectl.1")))

    def test_have_every_exit_status_of_kelvanectl_and_no_others(self):
        told = statuses(help_of(KELVANECTL))
        self.assertEqual(told, page_statuses(source("kelvanectl.1")))
        of_commands = {status for _, text in commands() for status in statuses(text)}
        self.assertEqual(set(told), of_commands)
        table = (TOP / "docs/kelvanectl.md").read_text().partition("## Exit status")[2]
        self.assertEqual(told, [int(number) for number in re.findall(r"^\| (\d+) \|", table, re.MULTILINE)])

    def test_have_the_options_and_exit_statuses_of_the_other_programs(self):
        for name, directory in (("kelvaned", "daemon"), ("kelvane-directory-cache", "services/directory-cache")):
            text = help_of(BUILD / directory / name)
            page = source(f"{name}.8")
            self.assertEqual(statuses(text), page_statuses(page), name)
            listed = {flags(line) for line in re.findall(r"^\.It (Fl .*)$", page, re.MULTILINE)}
            named = {option for group in listed for option in group}
            self.assertLessEqual({"--version", "--help"}, named)
            for option in re.findall(r"--[a-z]+", text.partition("Examples:")[0]):
                self.assertIn(option, named)


if __name__ == "__main__":
    unittest.main()
