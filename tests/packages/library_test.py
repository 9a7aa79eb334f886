# SPDX-License-Identifier: Apache-2.0
# That programs can be built with the packaged library, in each of the ways there are, and need no more than it then.

import os
import pathlib
import re
import tempfile
import unittest

from packages import TOP, field, output, unpack

EXAMPLE = pathlib.Path(__file__).resolve().parent / "Example.cpp"
PROJECT = f"""
cmake_minimum_required(VERSION 3.25)
project(example LANGUAGES CXX)
find_package(Kelvane 0.1 REQUIRED)
add_executable(example "{EXAMPLE}")
target_link_libraries(example PRIVATE Kelvane::kelvane)
"""


class Library(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.root = cls.directory / "root"
        unpack(cls.root, "libkelvane1", "libkelvane-dev")
        (cls.library,) = cls.root.rglob("libkelvane.so.1")

    def pkg_config(self, *options):
        (package,) = self.root.rglob("kelvane.pc")
        return output("pkg-config", "--cflags", "--libs", *options, "kelvane",
                      env={**os.environ, "PKG_CONFIG_SYSROOT_DIR": str(self.root),
                           "PKG_CONFIG_PATH": str(package.parent)}).split()

    def built(self, *flags):
        program = self.directory / "example"
        output("g++", EXAMPLE, "-o", program, *flags)
        return program

    def assert_runs(self, program):
        """Where no daemon of this machine's is."""
        self.assertEqual("good\n", output(TOP / "scripts/sandbox", program,
                                          env={**os.environ, "LD_LIBRARY_PATH": str(self.library.parent)}))

    def needed(self, file):
        return set(re.findall(r"\(NEEDED\).*\[(.*)\]", output("readelf", "--dynamic", "--wide", file)))

    def test_is_linked_by_what_pkg_config_tells(self):
        program = self.built(*self.pkg_config())
        self.assertIn("libkelvane.so.1", self.needed(program))
        self.assertFalse(self.needed(program) & self.needed(self.library) - {"libc.so.6", "libstdc++.so.6",
                                                                             "libgcc_s.so.1", "libm.so.6"})
        self.assert_runs(program)

    def test_is_linked_as_archives_by_what_pkg_config_tells_for_that(self):
        flags = ["-l:libkelvane.a" if flag == "-lkelvane" else flag for flag in self.pkg_config("--static")]
        program = self.built(*flags)
        self.assertNotIn("libkelvane.so.1", self.needed(program))
        self.assert_runs(program)

    def test_is_linked_as_a_target_of_its_cmake_package(self):
        source, build = self.directory / "source", self.directory / "build"
        source.mkdir()
        (source / "CMakeLists.txt").write_text(PROJECT)
        output("cmake", "-S", source, "-B", build, "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={self.root}/usr")
        output("cmake", "--build", build)
        self.assertIn("libkelvane.so.1", self.needed(build / "example"))
        self.assert_runs(build / "example")

    def test_exports_what_the_symbols_file_names_and_nothing_else(self):
        named = re.findall(r"^ (_Z\w+)@KELVANE_1 ", (TOP / "debian/libkelvane1.symbols").read_text(), re.MULTILINE)
        symbols = output("nm", "--dynamic", "--defined-only", "--with-symbol-versions", self.library)
        exported = re.findall(r"(\w+)@@KELVANE_1$", symbols, re.MULTILINE)
        self.assertGreater(len(named), 70)
        self.assertEqual(sorted(named), sorted(exported))

    def test_takes_along_only_what_it_needs(self):
        depends = field("libkelvane1", "Depends")
        self.assertIn("libsystemd0", depends)
        for name in ("libexpat1", "libmount1", "zlib1g"):
            self.assertNotIn(name, depends)

    def test_has_headers_of_which_each_stands_alone(self):
        directory = self.root / "usr/include/kelvane"
        headers = sorted(directory.rglob("*.h"))
        self.assertGreater(len(headers), 10)
        for header in headers:
            output("g++", "-std=c++20", "-Wall", "-Werror", "-fsyntax-only", "-I", directory, "-include", header, "-x",
                   "c++", "/dev/null")


if __name__ == "__main__":
    unittest.main()
