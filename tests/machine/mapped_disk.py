# SPDX-License-Identifier: Apache-2.0
# Disks that fail from within the machine.

# Nobody else makes its devices in there.
DMSETUP = "DM_DISABLE_UDEV=1 dmsetup"


class MappedDisk:
    """A disk of a running machine behind the device mapper, as path. It begins as the disk is."""

    def __init__(self, machine, disk):
        self._machine = machine
        self._disk = f"/dev/disks/{disk.name}"
        self._name = f"mapped-{disk.name}"
        self._sectors = disk.size // 512
        self.path = f"/dev/mapper/{self._name}"
        machine.run(f"{DMSETUP} create {self._name} --table '{self._table('linear', self._disk, 0)}'")

    def mend(self):
        self._become("linear", self._disk, 0)

    def fail(self):
        """Every read and write; but flushes are taken for done. So that they lie about nothing, what the disk has taken
        until now is made durable."""
        self._become("error", meanwhile=f"dd if=/dev/null of={self._disk} conv=fsync,notrunc status=none")

    def flake(self, *features):
        """With "drop_writes" writes are said to be done and are not; with "error_writes" they fail."""
        self._become("flakey", self._disk, 0, 0, 10**6, len(features), *features)

    def delay(self, milliseconds):
        """Every read and write."""
        self._become("delay", self._disk, 0, milliseconds)

    def _table(self, *words):
        return " ".join(map(str, (0, self._sectors, *words)))

    def _become(self, *words, meanwhile=":"):
        """With a command for when there are no requests of the disk."""
        # What a file system has not written yet is not written before.
        self._machine.run(f"{DMSETUP} load {self._name} --table '{self._table(*words)}' && "
                          f"{DMSETUP} suspend --noflush --nolockfs {self._name} && {{ {meanwhile}; }} && "
                          f"{DMSETUP} resume {self._name}")
