# SPDX-License-Identifier: Apache-2.0
# What is in the packages: all of it, in the package where it belongs, and as Debian wants it.

import gzip
import pathlib
import re
import tempfile
import unittest

from packages import NAMES, PACKAGES, TOP, field, files, output, unpack, unpack_control

DEBIAN = TOP / "debian"


class Contents(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        for name in NAMES:
            unpack(cls.directory / name, name)

    def files(self, name):
        return files(self.directory / name)

    def everything(self):
        return [path for name in NAMES for path in self.files(name)]

    def control(self, name):
        directory = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        unpack_control(directory, name)
        return directory

    def test_are_in_the_packages_that_there_are_to_be_and_their_debug_symbols_in_others(self):
        with_programs = {f"{name}-dbgsym" for name in ("kelvane-services", "kelvaned", "libkelvane1")}
        self.assertEqual({*NAMES, *with_programs}, {path.name.split("_")[0] for path in PACKAGES.glob("*.deb")})
        for name in with_programs:
            self.assertIn(".debug", output("dpkg-deb", "--contents", *PACKAGES.glob(f"{name}_*.deb")))

    def test_have_the_version_of_the_programs(self):
        version = re.search(r"project\(kelvane VERSION (\S+)", (TOP / "CMakeLists.txt").read_text()).group(1)
        self.assertEqual({version}, {field(name, "Version") for name in NAMES})

    def test_are_each_in_one_package(self):
        everything = self.everything()
        self.assertGreater(len(everything), 70)
        self.assertEqual(sorted(set(everything)), sorted(everything))

    def test_lie_only_where_packages_may_put_things(self):
        self.assertEqual({"etc", "lib", "usr"}, {path.split("/")[0] for path in self.everything()})

    def test_are_a_daemon_with_all_that_it_takes_to_run_it(self):
        self.assertEqual(
            {"etc/kelvane/kelvaned.plist", "usr/libexec/kelvaned", "usr/bin/kelvanectl",
             "usr/lib/kelvane/entitlements.d/50-root.plist", "usr/lib/tmpfiles.d/kelvane.conf",
             "usr/share/bash-completion/completions/kelvanectl", "usr/share/zsh/vendor-completions/_kelvanectl",
             "usr/share/fish/vendor_completions.d/kelvanectl.fish",
             *(f"lib/systemd/system/{unit}" for unit in (
                 "kelvaned.service", "kelvaned.socket", "kelvaned-control.socket", "kelvane-daily.service",
                 "kelvane-daily.timer"))},
            {path for path in self.files("kelvaned") if not path.startswith(("usr/share/man/", "usr/share/doc/"))})
        for directory in ("etc/kelvane/entitlements.d", "usr/share/kelvane/services"):
            self.assertTrue((self.directory / "kelvaned" / directory).is_dir(), directory)
        self.assertEqual("/etc/kelvane/kelvaned.plist\n", (self.control("kelvaned") / "conffiles").read_text())

    def test_are_services_with_their_units_and_an_example(self):
        self.assertLessEqual(
            {"usr/bin/kelvane-directory-cache", "lib/systemd/system/kelvane-directory-cache@.service",
             "lib/systemd/system/kelvane-directory-cache@.socket", "usr/share/man/man8/kelvane-directory-cache.8.gz",
             "usr/share/doc/kelvane-services/examples/directory-cache-example.plist"}, self.files("kelvane-services"))
        self.assertTrue((self.directory / "kelvane-services/etc/kelvane/directory-cache").is_dir())

    def test_are_all_manual_pages_compressed(self):
        pages = {f"usr/share/man/man{page.suffix[1:]}/{page.name}.gz" for page in (TOP / "docs/man").iterdir()}
        self.assertEqual(pages, {path for path in self.everything() if path.startswith("usr/share/man/")})

    def test_are_documents_that_find_each_other_and_that_others_find(self):
        directory = self.directory / "kelvane-doc/usr/share/doc/kelvane"
        documents = list(directory.rglob("*.md"))
        self.assertGreater(len(documents), 10)
        for document in documents:
            for target in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", document.read_text()):
                there = document.parent / target
                self.assertTrue(there.is_symlink() or there.exists(), f"{document.name}: {target}")
        pages = [gzip.decompress(page.read_bytes()).decode() for page in self.directory.rglob("usr/share/man/*/*.gz")]
        units = [unit.read_text() for unit in self.directory.rglob("lib/systemd/system/*.service")]
        named = re.findall(r"/usr/share/doc/kelvane/[\w./-]+\.\w+", "".join(pages + units))
        self.assertGreater(len(named), 5)
        for path in named:
            self.assertTrue((self.directory / "kelvane-doc" / path.lstrip("/")).exists(), path)

    def test_come_with_changes_and_rights(self):
        for name in NAMES:
            self.assertLessEqual({f"usr/share/doc/{name}/changelog.gz", f"usr/share/doc/{name}/copyright"},
                                 self.files(name))

    def test_are_stripped_programs(self):
        for path in (self.directory / "kelvaned/usr/libexec/kelvaned", self.directory / "kelvaned/usr/bin/kelvanectl",
                     self.directory / "kelvane-services/usr/bin/kelvane-directory-cache"):
            self.assertNotIn(".debug_info", output("readelf", "--section-headers", "--wide", path))

    def test_have_what_is_installed_started_and_stopped_and_the_sockets_left_alone_by_an_upgrade(self):
        control = self.control("kelvaned")
        postinst, prerm = (control / "postinst").read_text(), (control / "prerm").read_text()
        for unit in ("kelvaned.socket", "kelvaned-control.socket", "kelvaned.service", "kelvane-daily.timer"):
            self.assertIn(f"deb-systemd-helper enable '{unit}'", postinst)
            self.assertRegex(prerm, f"deb-systemd-invoke stop .*'{unit}'")
        self.assertRegex(postinst, "deb-systemd-invoke start 'kelvaned-control.socket' 'kelvaned.socket'")
        self.assertFalse((control / "preinst").exists())

    def test_override_nothing_of_lintian_without_saying_why(self):
        for overrides in (*DEBIAN.glob("*lintian-overrides"), *DEBIAN.glob("source/lintian-overrides")):
            for paragraph in overrides.read_text().strip().split("\n\n"):
                self.assertTrue(paragraph.startswith("# "), f"{overrides.name}: {paragraph}")


if __name__ == "__main__":
    unittest.main()
