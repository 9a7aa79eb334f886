# SPDX-License-Identifier: Apache-2.0
# A block device's side of the NBD protocol, which the emulator speaks to disks of other processes.

import contextlib
import enum
import struct
import typing

NBD_MAGIC = 0x4E42444D41474943
OPTION_MAGIC = 0x49484156454F5054
OPTION_REPLY_MAGIC = 0x3E889045565A9
REQUEST_MAGIC = 0x25609513
REPLY_MAGIC = 0x67446698

FIXED_NEW_STYLE = 1
NO_ZEROES = 2
OPTION_EXPORT_NAME, OPTION_ABORT, OPTION_GO = 1, 2, 7
REPLY_ACK, REPLY_INFO, REPLY_UNSUPPORTED = 1, 3, 0x80000001
INFO_EXPORT = 0

HAS_FLAGS, SEND_FLUSH, SEND_FUA = 1, 4, 8
FUA = 1


class Command(enum.IntEnum):
    READ = 0
    WRITE = 1
    DISCONNECT = 2
    FLUSH = 3


class Request(typing.NamedTuple):
    """Offset and length are in bytes; the data are those of a write, which is durable if it must not stay in a cache."""

    handle: int
    command: Command
    is_durable: bool
    offset: int
    length: int
    data: bytes


class Closed(Exception):
    """The other side is gone."""


class BlockConnection:
    """One emulator's connection; it begins when both sides know what the device is like."""

    def __init__(self, connection, size):
        self._connection = connection
        self._send(">QQH", NBD_MAGIC, OPTION_MAGIC, FIXED_NEW_STYLE | NO_ZEROES)
        self._receive(">I")
        flags = HAS_FLAGS | SEND_FLUSH | SEND_FUA
        while True:
            magic, option, length = self._receive(">QII")
            self._exactly(length)
            if magic != OPTION_MAGIC or option == OPTION_ABORT:
                raise Closed
            if option == OPTION_GO:
                self._send(">QIIIHQH", OPTION_REPLY_MAGIC, option, REPLY_INFO, 12, INFO_EXPORT, size, flags)
                self._send(">QIII", OPTION_REPLY_MAGIC, option, REPLY_ACK, 0)
                return
            if option == OPTION_EXPORT_NAME:
                self._send(">QH", size, flags)
                return
            self._send(">QIII", OPTION_REPLY_MAGIC, option, REPLY_UNSUPPORTED, 0)

    def request(self):
        magic, flags, command, handle, offset, length = self._receive(">IHHQQI")
        if magic != REQUEST_MAGIC or command == Command.DISCONNECT:
            raise Closed
        data = self._exactly(length) if command == Command.WRITE else b""
        return Request(handle, Command(command), bool(flags & FUA), offset, length, data)

    def answer(self, request, error, data=b""):
        """An errno or 0, and what was read. Nobody may be left to hear it."""
        with contextlib.suppress(OSError):
            self._connection.sendall(struct.pack(">IIQ", REPLY_MAGIC, error, request.handle) + data)

    def _send(self, form, *fields):
        self._connection.sendall(struct.pack(form, *fields))

    def _receive(self, form):
        return struct.unpack(form, self._exactly(struct.calcsize(form)))

    def _exactly(self, length):
        parts = []
        while length > 0:
            try:
                part = self._connection.recv(min(length, 1 << 20))
            except OSError as error:
                raise Closed from error
            if not part:
                raise Closed
            parts.append(part)
            length -= len(part)
        return b"".join(parts)
