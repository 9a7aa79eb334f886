# SPDX-License-Identifier: Apache-2.0
# What the programs tell of themselves: commands, options and exit statuses, as their help names them.

import os
import pathlib
import re
import subprocess

BUILD = pathlib.Path(os.environ["KELVANE_BUILD"])
KELVANECTL = BUILD / "tools/kelvanectl/kelvanectl"


def help_of(program, *command):
    return subprocess.run([str(program), *command, "--help"], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=60, check=True).stdout


def options(text):
    """Those that a help lists, each as a set of its names, but for help itself."""
    (listed,) = re.findall(r"^Options:\n((?:  .*\n)+)", text, re.MULTILINE) or [""]
    found = {frozenset(re.findall(r"(?:^|,)(--?[a-z][a-z-]*)", line.strip().split(" ")[0]))
             for line in listed.splitlines() if line.startswith("  -")}
    return found - {frozenset({"-h", "--help"})}


def statuses(text):
    _, _, listed = text.partition("Exit status:\n")
    return [int(number) for number in re.findall(r"^  (\d+) ", listed, re.MULTILINE)]


def commands(*parent):
    """(words, help) of every command of kelvanectl's that is run, in their order."""
    text = help_of(KELVANECTL, *parent)
    (listed,) = re.findall(r"^Subcommands:\n((?:  .*\n)+)", text, re.MULTILINE)
    for name in re.findall(r"^  (\S+)", listed, re.MULTILINE):
        words = (*parent, name)
        own = help_of(KELVANECTL, *words)
        if "\nSubcommands:\n" in own:
            yield from commands(*words)
        else:
            yield words, own
