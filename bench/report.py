# SPDX-License-Identifier: Apache-2.0
# The figures, as they are shown and stored.

import dataclasses
import json
import os
import pathlib
import platform
import subprocess
import time


@dataclasses.dataclass
class Aim:
    text: str
    is_met: bool


class Report:
    """Sections of rows. Every row has a name, under which its numbers are stored, and cells to be read."""

    def __init__(self):
        self.machine = machine()
        self.figures = {}
        self.sections = []

    def section(self, title, columns):
        self.sections.append((title, columns, []))
        print(f"\n{title}", flush=True)

    def row(self, name, text, cells, aim=None, figures=None):
        self.sections[-1][2].append((text, cells, aim))
        self.figures[name] = {"text": text, "shown": cells, **(figures or {})}
        if aim:
            self.figures[name]["aim"] = {"text": aim.text, "met": aim.is_met}
        print(f"  {text:<54} {'  '.join(f'{cell:>9}' for cell in cells)}  {shown_aim(aim)}", flush=True)

    @staticmethod
    def duration(nanoseconds):
        for unit, factor in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
            if nanoseconds >= factor:
                return f"{nanoseconds / factor:.1f} {unit}"
        return f"{nanoseconds:.1f} ns"

    @staticmethod
    def size(kib):
        return f"{kib / 1024:.1f} MiB"

    def json(self):
        return json.dumps({"machine": self.machine, "figures": self.figures}, indent=1)

    def markdown(self):
        lines = [f"- {key}: {value}" for key, value in self.machine.items()]
        for title, columns, rows in self.sections:
            lines += ["", f"### {title}", "", f"| | {' | '.join(columns)} | aim |", f"|---|{'---:|' * len(columns)}---|"]
            for text, cells, aim in rows:
                padded = cells + [""] * (len(columns) - len(cells))
                lines.append(f"| {text} | {' | '.join(padded)} | {shown_aim(aim)} |")
        return "\n".join(lines) + "\n"


def shown_aim(aim):
    if aim is None:
        return ""
    return f"{aim.text}: {'met' if aim.is_met else 'NOT MET'}"


def machine():
    """What the figures depend on."""
    top = pathlib.Path(__file__).resolve().parents[1]

    def output(*command):
        return subprocess.run(command, cwd=top, capture_output=True, text=True, check=False).stdout.strip()

    processor = "unknown"
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            processor = line.partition(":")[2].strip()
    changed = " and changes" if output("git", "status", "--porcelain", "--untracked-files=no") else ""
    return {
        "Date": time.strftime("%Y-%m-%d"),
        "Commit": (output("git", "rev-parse", "--short=12", "HEAD") or "unknown") + changed,
        "Processor": f"{len(os.sched_getaffinity(0))} of {processor}",
        "Kernel": platform.release(),
        "Library": "libsystemd " + output("pkg-config", "--modversion", "libsystemd"),
        "Compiler": output("g++", "--version").partition("\n")[0],
        "Load before": f"{os.getloadavg()[0]:.2f}",
    }
