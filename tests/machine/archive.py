# SPDX-License-Identifier: Apache-2.0
# Archives of files as the kernel unpacks them before it starts anything.

import os
import pathlib
import stat

PADDING = b"\0\0\0"


class Archive:
    """In cpio's "newc" format; root owns everything. Archives may follow one another."""

    def __init__(self):
        self._parts = []
        self._directories = set()

    def add_directories(self, *names):
        for name in names:
            for directory in (*reversed(pathlib.PurePath(name).parents), pathlib.PurePath(name)):
                if str(directory) not in (".", *self._directories):
                    self._directories.add(str(directory))
                    self._add(str(directory), stat.S_IFDIR | 0o755, b"")

    def add_file(self, name, contents, mode=0o644):
        self.add_directories(pathlib.PurePath(name).parent)
        self._add(name, stat.S_IFREG | stat.S_IMODE(mode), contents)

    def add_tree(self, top, name=""):
        """What is in a directory, as what is in the directory of that name."""
        for directory, directories, files in os.walk(top):
            at = pathlib.PurePath(name) / os.path.relpath(directory, top)
            self.add_directories(at)
            for entry in (*files, *(entry for entry in directories if os.path.islink(os.path.join(directory, entry)))):
                path = pathlib.Path(directory, entry)
                if path.is_symlink():
                    self._add(str(at / entry), stat.S_IFLNK | 0o777, os.fsencode(os.readlink(path)))
                else:
                    self._add(str(at / entry), path.stat().st_mode, path.read_bytes())

    def bytes(self):
        end = [self._entry("TRAILER!!!", 0, b"")]
        return b"".join(self._parts + end)

    def _add(self, name, mode, contents):
        self._parts.append(self._entry(name, mode, contents))

    def _entry(self, name, mode, contents):
        encoded = os.fsencode(name) + b"\0"
        number = len(self._parts) + 1
        links = 2 if stat.S_ISDIR(mode) else 1
        fields = (number, mode, 0, 0, links, 0, len(contents), 0, 0, 0, 0, len(encoded), 0)
        head = b"070701" + b"".join(b"%08x" % field for field in fields) + encoded
        return head + PADDING[:-len(head) % 4] + contents + PADDING[:-len(contents) % 4]
