# SPDX-License-Identifier: Apache-2.0
# Disks of the machine, with a cache that a power cut empties.

import collections
import errno
import os
import pathlib
import random
import socket
import subprocess
import threading
import time

from block_protocol import BlockConnection, Closed, Command

SECTOR = 512
# What such a disk writes whole or not at all.
BLOCK = 4096
MIB = 1024 * 1024

# How an image becomes a file system.
MAKERS = {"ext4": ("mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0"), "xfs": ("mkfs.xfs", "-q"),
          "btrfs": ("mkfs.btrfs", "-q"), "f2fs": ("mkfs.f2fs", "-q")}
LEAST_MIB = {"ext4": 8, "xfs": 300, "btrfs": 128, "f2fs": 64}


class Disk:
    """A disk whose contents and whims are this process's. It tells the machine that it has a volatile cache, and really
    has one: a write is in the cache until the machine flushes, or has asked for this very write to be durable; then it
    is in the image, and remains. It outlives any machine that has it. All methods may be called while one has."""

    def __init__(self, directory, name, mib=64, kind=None):
        self.name = name
        self.kind = kind
        self.size = max(mib, LEAST_MIB.get(kind, 0)) * MIB
        self.image = pathlib.Path(directory) / f"{name}.image"
        with open(self.image, "wb") as file:
            file.truncate(self.size)
        if kind is not None:
            subprocess.run([*MAKERS[kind], self.image], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        self._file = open(self.image, "r+b", buffering=0)
        # What has been written and not flushed: the contents of sectors by their numbers.
        self._cache = {}
        self._changed = threading.Condition()
        self._failing = frozenset()
        self._hung = frozenset()
        self._writes_left = None
        self._held = []
        self._is_lying = False
        self._delay = 0
        self._connections = 0
        self._received = collections.Counter()
        self.socket = pathlib.Path(directory) / f"{name}.socket"
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(str(self.socket))
        self._listener.listen()
        threading.Thread(target=self._serve, daemon=True).start()

    def fail(self, *kinds):
        """Requests of these kinds, "read", "write" and "flush", fail from now on; what is in the cache stays there."""
        with self._changed:
            self._failing = frozenset(Command[kind.upper()] for kind in kinds)

    def hang(self, *kinds):
        """Requests of these kinds are not answered from now on."""
        with self._changed:
            self._hung = frozenset(Command[kind.upper()] for kind in kinds)

    def lie(self):
        """Flushes are said to be done, and nothing becomes durable from now on."""
        with self._changed:
            self._is_lying = True

    def slow_down(self, seconds):
        """Every request takes so long, one after the other."""
        with self._changed:
            self._delay = seconds

    def mend(self):
        """All is well again; what was held is answered."""
        with self._changed:
            self._heal()
            held, self._held = self._held, []
            for connection, request in held:
                self._answer(connection, request)

    def stop_after(self, writes):
        """Takes so many more writes, and then answers nothing."""
        with self._changed:
            self._writes_left = writes

    def holds(self):
        """Whether somebody waits in vain for an answer."""
        with self._changed:
            return bool(self._held)

    def await_held(self, seconds=30):
        """Returns once somebody waits in vain for an answer."""
        with self._changed:
            if not self._changed.wait_for(lambda: self._held, seconds):
                raise AssertionError(f"{self.name}: nobody asked within {seconds} s")

    def received(self, kind):
        with self._changed:
            return self._received[Command[kind.upper()]]

    def lose_power(self, seed=None):
        """To be told when the machine has lost it. What was in the cache is gone; or, with a seed, each of its blocks by
        chance. It is as healthy as at first when the power is back."""
        chance = random.Random(seed)
        with self._changed:
            self._changed.wait_for(lambda: self._connections == 0)
            self._held = []
            self._heal()
            if seed is not None:
                blocks = sorted({sector * SECTOR // BLOCK for sector in self._cache})
                kept = {block for block in blocks if chance.random() < 0.5}
                self._cache = {sector: data for sector, data in self._cache.items() if sector * SECTOR // BLOCK in kept}
                self._flush()
            self._cache = {}

    def close(self):
        self._listener.close()
        self._file.close()

    def _heal(self):
        self._is_lying = False
        self._failing = self._hung = frozenset()
        self._writes_left = None
        self._delay = 0

    def _serve(self):
        while True:
            try:
                accepted, _ = self._listener.accept()
            except OSError:
                return
            with self._changed:
                self._connections += 1
            threading.Thread(target=self._serve_one, args=(accepted,), daemon=True).start()

    def _serve_one(self, accepted):
        with accepted:
            try:
                connection = BlockConnection(accepted, self.size)
                while True:
                    self._handle(connection, connection.request())
            except Closed:
                pass
        with self._changed:
            self._connections -= 1
            self._changed.notify_all()

    def _handle(self, connection, request):
        with self._changed:
            self._received[request.command] += 1
            delay = self._delay
            if self._writes_left is not None and request.command == Command.WRITE:
                self._writes_left -= 1
            if request.command in self._hung or (self._writes_left is not None and self._writes_left < 0):
                self._held.append((connection, request))
                self._changed.notify_all()
                return
        time.sleep(delay)
        with self._changed:
            self._answer(connection, request)

    def _answer(self, connection, request):
        if request.command in self._failing:
            connection.answer(request, errno.EIO)
        elif request.command == Command.READ:
            connection.answer(request, 0, self._read(request.offset, request.length))
        else:
            if request.command == Command.WRITE:
                self._write(request.offset, request.data)
                if request.is_durable:
                    self._flush(request.offset // SECTOR, len(request.data) // SECTOR)
            else:
                self._flush()
            connection.answer(request, 0)

    def _read(self, offset, length):
        data = bytearray(os.pread(self._file.fileno(), length, offset))
        if self._cache:
            for index in range(length // SECTOR):
                sector = self._cache.get(offset // SECTOR + index)
                if sector is not None:
                    data[index * SECTOR:(index + 1) * SECTOR] = sector
        return bytes(data)

    def _write(self, offset, data):
        for index in range(len(data) // SECTOR):
            self._cache[offset // SECTOR + index] = data[index * SECTOR:(index + 1) * SECTOR]

    def _flush(self, first=None, count=0):
        """All, or these sectors."""
        if self._is_lying:
            return
        sectors = sorted(self._cache) if first is None else range(first, first + count)
        for sector in sectors:
            os.pwrite(self._file.fileno(), self._cache.pop(sector), sector * SECTOR)
