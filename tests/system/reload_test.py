# SPDX-License-Identifier: Apache-2.0
# Configuration that is read again, and configuration that cannot be read.

import pathlib
import shutil
import signal
import socket
import unittest

from kelvane_system import CACHE_USER, CONTROL_SOCKET, DAEMON_SOCKET, DESCRIPTIONS, ENTITLEMENTS, HAS_SYSTEM_ROOT
from kelvane_system import KELVANECTL, KELVANED, LOGS, PATIENCE_SECONDS, SystemTest, files_for_urgency, run, until

ETC = pathlib.Path("/etc/kelvane")
EVENT = ("busctl", f"--address=unix:path={CONTROL_SOCKET}", "call", "com.tessaly.kelvane", "/com/tessaly/KelvanePlatform",
         "com.tessaly.KelvanePlatform", "postEvent", "sa{sv}", "com.tessaly.dispatch.vfs", "1", "_Flags", "t", "0")
LINK_IS_TOLD = "A symbolic link leads nowhere"


class ServiceManager:
    """What the daemon tells it."""

    def __init__(self, test):
        self.path = LOGS / "notify"
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        test.addCleanup(self.socket.close)
        self.socket.bind(str(self.path))
        self.socket.settimeout(PATIENCE_SECONDS)

    def await_message(self, wanted):
        while self.socket.recv(4096).decode() != wanted:
            pass


class ReloadTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.addCleanup(shutil.rmtree, ETC, ignore_errors=True)

    def start_told_daemon(self):
        """A daemon and who is told of its reloads."""
        manager = ServiceManager(self)
        daemon = self.start("kelvaned", "env", f"NOTIFY_SOCKET={manager.path}", KELVANED)
        manager.await_message("READY=1")
        self.manager = manager
        return daemon

    def reload(self, daemon):
        """Returns when it has."""
        daemon.send(signal.SIGHUP)
        self.manager.await_message("RELOADING=1")
        self.manager.await_message("READY=1")

    def connect(self):
        """A connection that the daemon has admitted."""
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.addCleanup(connection.close)
        connection.settimeout(PATIENCE_SECONDS)
        connection.connect(str(DAEMON_SOCKET))
        connection.sendall(b"\0AUTH EXTERNAL 30\r\n")
        answers = b""
        while b"OK " not in answers:
            answers += connection.recv(4096)
        return connection


class Reload(ReloadTest):
    def ending(self, volume):
        """Of a purge that one file of urgency 1 is enough for."""
        status, report = self.purge(volume, "1M", "--urgency=1", "--timeout=1")
        return status, report["ending"]

    @staticmethod
    def left(directory):
        return files_for_urgency(directory, 1)

    def test_finds_new_rules(self):
        user, prefix = self.plain_user()
        self.entitle(user, "CLIENT_ENTITLEMENT")
        daemon = self.start_told_daemon()
        data = self.volume()
        purge = (*prefix, *self.purge_command(data, "1M", "--single", "--urgency=1", "--timeout=1"))
        refused = run(*purge)
        self.assertEqual(4, refused.returncode)
        number = "12345" if HAS_SYSTEM_ROOT else "0"
        until(lambda: f"uid {number} lacks PURGE_ENTITLEMENT; a rule in /etc/kelvane/entitlements.d gives it, such as "
              f"{{ User = {number}; Entitlements = (PURGE_ENTITLEMENT); }}" in daemon.log(), "what would help")
        self.entitle(user, "CLIENT_ENTITLEMENT", "PURGE_ENTITLEMENT")
        self.assertEqual(4, run(*purge).returncode)
        self.reload(daemon)
        # No service is there to give anything.
        self.assertEqual(1, run(*purge).returncode)

    def test_withdraws_what_a_connected_service_had_and_gives_it_back(self):
        data = self.volume()
        directory = self.fill(data, "com.example.web")
        daemon = self.start_told_daemon()
        service = self.start_service("com.example.web", directory)
        self.reload(daemon)
        self.assertEqual((0, "freed"), self.ending(data))
        self.assertEqual(3, self.left(directory))
        self.assertEqual(1, service.log().count("checked in"))

        self.entitle(CACHE_USER, "CLIENT_ENTITLEMENT")
        self.reload(daemon)
        until(lambda: "com.example.web be a service any more: pid " in daemon.log(), "the service's end")
        until(lambda: "this process lacks SERVICE_ENTITLEMENT; a rule in /etc/kelvane/entitlements.d gives it"
              in service.log(), "the service's reason")
        self.assertEqual((1, "no-services"), self.ending(data))
        self.assertEqual(3, self.left(directory))

        self.entitle(CACHE_USER, "CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT")
        self.reload(daemon)
        self.await_checkin(service, times=2)
        self.assertEqual((0, "freed"), self.ending(data))

    def test_keeps_a_service_whose_program_alone_is_entitled(self):
        """Its check-in's connection has long been closed by then."""
        data = self.volume()
        directory = self.fill(data, "com.example.web")
        daemon = self.start_told_daemon()
        service = self.start_service("com.example.web", directory)
        program = pathlib.Path(f"/proc/{service.pid}/exe").resolve()
        (ENTITLEMENTS / f"test-{CACHE_USER}.plist").write_text(
            f"{{ Executable = \"{program}\"; Entitlements = (CLIENT_ENTITLEMENT, SERVICE_ENTITLEMENT); }}")
        self.reload(daemon)
        self.assertEqual((0, "freed"), self.ending(data))
        self.assertEqual(1, service.log().count("checked in"))
        self.assertNotIn("any more", daemon.log())

    def test_cuts_off_a_client_that_may_not_connect_any_more(self):
        daemon = self.start_told_daemon()
        connection = self.connect()
        self.reload(daemon)
        self.assertEqual(0, run(KELVANECTL, "cancel", "none").returncode)
        for file in ENTITLEMENTS.iterdir():
            file.unlink()
        self.reload(daemon)
        self.assertEqual(b"", connection.recv(4096))
        self.assertEqual(4, run(KELVANECTL, "cancel", "none").returncode)
        until(lambda: "refused a connection: pid " in daemon.log(), "the refusal")

    def test_of_a_broken_file_grants_nothing_by_it_and_says_so(self):
        daemon = self.start_told_daemon()
        connection = self.connect()
        file = ENTITLEMENTS / "50-root.plist"
        for root in ENTITLEMENTS.glob("test-root.plist"):
            root.unlink()
        whole = file.read_bytes()
        file.write_bytes(whole[:len(whole) // 2])
        self.reload(daemon)
        self.assertIn(f"unable to read {file}: ", daemon.log())
        self.assertIn("; it grants nothing", daemon.log())
        self.assertEqual(b"", connection.recv(4096))
        file.write_bytes(whole)
        self.reload(daemon)
        self.assertEqual(0, run(KELVANECTL, "cancel", "none").returncode)

    def test_reads_the_settings_again(self):
        daemon = self.start_told_daemon()
        (ETC / "kelvaned.plist").write_text("{ PingLimit = soon; }")
        self.reload(daemon)
        self.assertIn("PingLimit is no whole number from 0 to 120: soon; it is 0", daemon.log())

    def test_leaves_the_daemon_to_be_ended_as_ever(self):
        daemon = self.start_told_daemon()
        for _ in range(10):
            daemon.send(signal.SIGHUP)
        self.reload(daemon)
        daemon.send(signal.SIGTERM)
        self.assertEqual(0, daemon.wait())


class WhatCannotBeRead(ReloadTest):
    """Is named in the log when the daemon starts, with what is done instead, and nothing else is."""

    def log_at_start(self, *prefix):
        daemon = self.start("kelvaned", *prefix, KELVANED)
        # The last that is read, as the control socket is the last that is opened.
        until(lambda: CONTROL_SOCKET.exists() or not daemon.is_running(), "a daemon")
        self.assertTrue(daemon.is_running(), daemon.log())
        return daemon

    def assert_told(self, daemon, *lines):
        for line in lines:
            until(lambda line=line: line in daemon.log(), line)
            self.assertEqual(1, daemon.log().count(line), daemon.log())

    def test_is_not_what_is_not_there(self):
        shutil.rmtree(DESCRIPTIONS)
        shutil.rmtree(ETC)
        daemon = self.log_at_start()
        # Whoever looks for low volumes looks at volumes.plist.
        self.assertEqual(0, run(*EVENT).returncode)
        self.assertNotIn("unable", daemon.log())
        self.assertNotIn("appl", daemon.log())

    def test_is_told_of_files_that_are_links_to_nothing(self):
        for name in ("kelvaned.plist", "log.plist", "volumes.plist", "entitlements.d/a.plist"):
            (ETC / name).symlink_to("/nowhere")
        (DESCRIPTIONS / "a.plist").symlink_to("/nowhere")
        daemon = self.log_at_start()
        self.assert_told(
            daemon,
            f"unable to read {ETC}/kelvaned.plist: {LINK_IS_TOLD}; everything is as built in",
            f"unable to read {ETC}/log.plist: {LINK_IS_TOLD}; the defaults apply",
            f"{ETC}/volumes.plist: {LINK_IS_TOLD}; the defaults apply",
            f"unable to read {ENTITLEMENTS}/a.plist: {LINK_IS_TOLD}; it grants nothing",
            f"readTreeFromData failed: /{DESCRIPTIONS}//a.plist: {LINK_IS_TOLD}")

    def test_is_told_of_directories_that_are_links_to_nothing(self):
        for directory in (DESCRIPTIONS, ENTITLEMENTS):
            shutil.rmtree(directory)
            directory.symlink_to("/nowhere")
            self.addCleanup(directory.unlink)
        daemon = self.log_at_start()
        self.assert_told(daemon,
                         f"unable to list {ENTITLEMENTS}: {LINK_IS_TOLD}; it counts as empty",
                         f"unable to list /{DESCRIPTIONS}/: {LINK_IS_TOLD}; it counts as empty")

    def test_is_told_of_circles_and_of_files_in_the_place_of_directories(self):
        shutil.rmtree(ENTITLEMENTS)
        ENTITLEMENTS.write_text("{}")
        self.addCleanup(ENTITLEMENTS.unlink)
        (ETC / "kelvaned.plist").symlink_to("kelvaned.plist")
        daemon = self.log_at_start()
        self.assert_told(daemon,
                         f"unable to list {ENTITLEMENTS}: Not a directory; it counts as empty",
                         f"unable to read {ETC}/kelvaned.plist: Too many levels of symbolic links; everything is as built "
                         "in")

    def test_is_told_of_a_configuration_directory_that_is_a_link_to_nothing(self):
        shutil.rmtree(ETC)
        ETC.symlink_to("/nowhere")
        self.addCleanup(ETC.unlink)
        daemon = self.log_at_start()
        self.assert_told(daemon,
                         f"unable to read {ETC}/kelvaned.plist: {LINK_IS_TOLD}",
                         f"unable to read {ETC}/log.plist: {LINK_IS_TOLD}",
                         f"{ETC}/volumes.plist: {LINK_IS_TOLD}",
                         f"unable to list {ENTITLEMENTS}: {LINK_IS_TOLD}")

    def test_is_told_of_what_others_may_change(self):
        """Which does not count."""
        (ETC / "kelvaned.plist").write_text("{ PingLimit = soon; }")
        (ETC / "kelvaned.plist").chmod(0o666)
        (ETC / "log.plist").symlink_to(DESCRIPTIONS / "log.plist")
        DESCRIPTIONS.chmod(0o775)
        self.addCleanup(DESCRIPTIONS.chmod, 0o755)
        for file in (DESCRIPTIONS / "log.plist", DESCRIPTIONS / "a.plist", ETC / "volumes.plist"):
            file.write_text("{}")
        (ETC / "volumes.plist").chmod(0o664)
        reason = "and configuration that others may change does not count"
        daemon = self.log_at_start()
        self.assert_told(
            daemon,
            f"unable to read {ETC}/kelvaned.plist: {ETC}/kelvaned.plist may be written to by everybody, {reason}",
            f"unable to read {ETC}/log.plist: {DESCRIPTIONS} may be written to by its group, {reason}",
            f"{ETC}/volumes.plist: {ETC}/volumes.plist may be written to by its group, {reason}; the defaults apply",
            f"readTreeFromData failed: /{DESCRIPTIONS}//a.plist: {DESCRIPTIONS} may be written to by its group, {reason}")
        self.assertNotIn("PingLimit", daemon.log())

    def test_is_told_of_what_the_daemon_may_not_read(self):
        (ETC / "kelvaned.plist").write_text("{}")
        (DESCRIPTIONS / "closed").mkdir()
        for path in (ETC / "kelvaned.plist", ENTITLEMENTS, DESCRIPTIONS / "closed"):
            mode = path.stat().st_mode
            path.chmod(0)
            self.addCleanup(path.chmod, mode)
        # Whatever may be read by none may be read by root, unless it has no capabilities.
        daemon = self.log_at_start("setpriv", "--inh-caps=-all", "--bounding-set=-all")
        self.assert_told(daemon,
                         f"unable to read {ETC}/kelvaned.plist: Permission denied; everything is as built in",
                         f"unable to list {ENTITLEMENTS}: Permission denied; it counts as empty",
                         f"unable to list /{DESCRIPTIONS}//closed/: Permission denied; it counts as empty")


if __name__ == "__main__":
    unittest.main()
