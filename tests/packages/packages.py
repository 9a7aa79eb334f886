# SPDX-License-Identifier: Apache-2.0
# The Debian packages that were made, and what tells about them.

import os
import pathlib
import subprocess

TOP = pathlib.Path(__file__).resolve().parents[2]
PACKAGES = pathlib.Path(os.environ.get("KELVANE_PACKAGES", TOP / "build/packages"))
# As they are to be, without those of debug symbols.
NAMES = ("kelvane-doc", "kelvane-services", "kelvaned", "libkelvane-dev", "libkelvane1")


def output(*command, **options):
    """What a command says that must not fail."""
    return subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                          check=True, **options).stdout


def file_of(name):
    """The one package of this name."""
    (path,) = PACKAGES.glob(f"{name}_*.deb")
    return path


def field(name, key):
    return output("dpkg-deb", "--field", file_of(name), key).strip()


def unpack(directory, *names):
    for name in names:
        output("dpkg-deb", "--extract", file_of(name), directory)


def unpack_control(directory, name):
    """The scripts and lists that go with it."""
    output("dpkg-deb", "--control", file_of(name), directory)


def files(directory):
    """All that is no directory, relative to it."""
    return {str(path.relative_to(directory)) for path in pathlib.Path(directory).rglob("*")
            if path.is_symlink() or not path.is_dir()}
