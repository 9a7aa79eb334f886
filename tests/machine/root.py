# SPDX-License-Identifier: Apache-2.0
# The system that the machine boots: Debian, of the packages that this machine gets its own from.

import contextlib
import fcntl
import hashlib
import lzma
import os
import pathlib
import shlex
import shutil
import subprocess
import sys
import tarfile
import tempfile

from archive import Archive

TOP = pathlib.Path(__file__).resolve().parents[2]
GUEST = pathlib.Path(__file__).resolve().parent / "guest"
CACHE = TOP / "build/machine"

# systemd as process 1, what the programs of this tree are linked with, what installs packages, and tools for disks.
# File systems are made on this side.
PACKAGES = ("apt", "systemd", "systemd-sysv", "kmod", "dmsetup", "busybox-static", "libexpat1", "libfmt9", "libmount1",
            "libstdc++6", "libsystemd0", "zlib1g", "libprometheus-cpp-core1.0")
# With every file system and the targets of the device mapper. What its package asks for beside is for other machines.
KERNEL = "linux-image-amd64"
MODULES = ("arch", "crypto", "drivers/block", "drivers/char", "drivers/md", "drivers/virtio", "fs", "lib")
# What the root file system and the agent are behind, in the order that it is loaded.
NEEDED_TO_BOOT = ("virtio_pci", "virtio_console", "virtio_blk", "crc32c_generic", "ext4")
# How what it is packed with begins.
XZ = b"\xfd7zXZ\0"
# For whom nobody waits in there.
MASKED = (
    "apt-daily.timer", "apt-daily-upgrade.timer", "dev-hugepages.mount", "dev-mqueue.mount", "dpkg-db-backup.timer",
    "e2scrub_all.timer", "e2scrub_reap.service",
    "fstrim.timer", "getty.target", "modprobe@configfs.service", "modprobe@dm_mod.service", "modprobe@drm.service",
    "modprobe@efi_pstore.service", "modprobe@fuse.service", "modprobe@loop.service", "proc-sys-fs-binfmt_misc.automount",
    "remote-fs.target", "sys-fs-fuse-connections.mount", "sys-kernel-config.mount", "sys-kernel-debug.mount",
    "sys-kernel-tracing.mount", "systemd-ask-password-console.path", "systemd-ask-password-wall.path",
    "systemd-binfmt.service", "systemd-initctl.socket", "systemd-journal-catalog-update.service",
    "systemd-journal-flush.service", "systemd-journald-audit.socket", "systemd-logind.service",
    "systemd-modules-load.service", "systemd-pstore.service", "systemd-random-seed.service",
    "systemd-remount-fs.service", "systemd-sysctl.service", "systemd-sysusers.service", "systemd-tmpfiles-clean.timer",
    "systemd-update-done.service", "systemd-update-utmp-runlevel.service", "systemd-update-utmp.service",
    "systemd-user-sessions.service")
ROOT_MIB = 512


class Root:
    """The files to boot from, made once for as long as this recipe is the same."""

    disk = CACHE / "root.img"
    kernel = CACHE / "vmlinux"
    initrd = CACHE / "initrd"

    def __init__(self):
        recipe = CACHE / "recipe"
        CACHE.mkdir(parents=True, exist_ok=True)
        with open(CACHE / "lock", "w", encoding="ascii") as lock:
            # Tests that run at once want the same one.
            fcntl.flock(lock, fcntl.LOCK_EX)
            wanted = self.recipe()
            if not recipe.exists() or recipe.read_text(encoding="ascii") != wanted:
                recipe.unlink(missing_ok=True)
                self.make()
                recipe.write_text(wanted, encoding="ascii")

    @staticmethod
    def recipe():
        text = b"".join(file.read_bytes() for file in (pathlib.Path(__file__), GUEST / "init", GUEST / "kernel"))
        return hashlib.sha256(text).hexdigest() + "\n"

    def make(self):
        with tempfile.TemporaryDirectory(prefix="kelvane-machine-") as directory:
            tar = pathlib.Path(directory) / "root.tar"
            make_tar(tar, pathlib.Path(directory))
            make_disk(tar, self.disk)
            with tarfile.open(tar) as files:
                make_initrd(files, self.kernel, self.initrd)


def must_run(*command, **options):
    """Shows what a command has said only if it fails."""
    result = subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, check=False, **options)
    if result.returncode != 0:
        sys.stderr.write(result.stdout)
        raise RuntimeError(f"{command[0]}: exit status {result.returncode}")


def package_sources():
    """Files in one of apt's two formats."""
    directory = pathlib.Path("/etc/apt")
    sources = [directory / "sources.list", *sorted((directory / "sources.list.d").glob("*.list")),
               *sorted((directory / "sources.list.d").glob("*.sources"))]
    return [source for source in sources if source.is_file()]


def make_tar(tar, directory):
    """The root's files, and the kernel's."""
    # How this machine's apt gets at packages, such as through a proxy, but none of its hooks.
    acquire = subprocess.run(["apt-config", "dump", "--no-empty", "--format", '%f "%v";%n', "Acquire"],
                             stdout=subprocess.PIPE, check=True, text=True).stdout
    settings = directory / "acquire.conf"
    settings.write_text(acquire, encoding="utf-8")
    masks = " ".join(f"etc/systemd/system/{unit}" for unit in MASKED)
    hooks = [
        'cp --recursive /etc/apt/auth.conf* /etc/apt/preferences* "$1/etc/apt/" 2>/dev/null || :',
        f"env KERNEL={KERNEL} MODULES={shlex.quote(' '.join(MODULES))} {shlex.quote(str(GUEST / 'kernel'))} \"$1\"",
        f'cd "$1" && for mask in {masks}; do ln --symbolic --force /dev/null $mask; done',
        # There is nothing in there for which a unit would have to be made up at every boot.
        'cd "$1" && mkdir --parents etc/systemd/system-generators && for generator in usr/lib/systemd/system-generators/*; '
        'do ln --symbolic /dev/null "etc/systemd/system-generators/${generator##*/}"; done',
        'cd "$1" && echo machine >etc/hostname && '
        "head --bytes=16 /dev/urandom | od --address-radix=n --format=x1 | tr --delete ' \\n' >etc/machine-id",
    ]
    must_run("mmdebstrap", "--variant=essential", f"--include={','.join(PACKAGES)}", "--format=tar",
             f"--aptopt={settings}", "--aptopt=Acquire::Languages \"none\"", "--dpkgopt=force-unsafe-io",
             *(f"--dpkgopt=path-exclude=/usr/share/{name}/*" for name in ("doc", "info", "locale", "man")),
             f"--setup-hook={hooks[0]}", *(f"--customize-hook={hook}" for hook in hooks[1:]),
             "", tar, *package_sources())


def make_disk(tar, disk):
    """An ext4 with the files. Owners need root, if only of a user namespace."""
    namespace = [] if os.geteuid() == 0 else ["unshare", "--map-root-user", "--map-auto"]
    with contextlib.suppress(FileNotFoundError):
        disk.unlink()
    with tempfile.TemporaryDirectory(prefix="kelvane-machine-") as directory:
        # The devices are the kernel's to make, and where packages come from is this machine's own affair.
        script = ('mkdir "$1/root" && tar --extract --numeric-owner --file="$2" --directory="$1/root" '
                  '--exclude="./dev/*" --exclude=./etc/apt --exclude=./etc/resolv.conf && '
                  f'mkfs.ext4 -q -F -L root -d "$1/root" "$3" {ROOT_MIB}M; status=$?; '
                  'rm --recursive --force "$1/root"; exit $status')
        must_run(*namespace, "sh", "-c", script, "sh", directory, tar, disk)


def make_initrd(files, kernel, initrd):
    """The kernel as a file of its own, and what mounts its root."""
    names = {member.name.removeprefix("./"): member for member in files}

    def read(name):
        return files.extractfile(names[name]).read()

    (image,) = (name for name in names if name.startswith("boot/vmlinuz-"))
    kernel.write_bytes(unpacked(read(image)))
    modules = f"usr/lib/modules/{image.removeprefix('boot/vmlinuz-')}"
    dependencies = {}
    for line in read(f"{modules}/modules.dep").decode().splitlines():
        path, _, needed = line.partition(":")
        dependencies[pathlib.PurePath(path).stem] = (path, needed.split())
    order = []
    for name in NEEDED_TO_BOOT:
        path, needed = dependencies[name]
        order += [each for each in (*reversed(needed), path) if each not in order]
    archive = Archive()
    archive.add_directories("dev", "proc", "sys", "root", "modules")
    archive.add_file("bin/busybox", read(next(name for name in ("usr/bin/busybox", "bin/busybox") if name in names)), 0o755)
    archive.add_file("init", (GUEST / "init").read_bytes(), 0o755)
    archive.add_file("modules/order", "".join(f"{pathlib.PurePath(path).name}\n" for path in order).encode())
    for path in order:
        archive.add_file(f"modules/{pathlib.PurePath(path).name}", read(f"{modules}/{path}"))
    initrd.write_bytes(archive.bytes())


def unpacked(image):
    """The kernel itself, an ELF file. The emulator would take as long for unpacking it as for the rest of the boot."""
    begin = image.index(XZ)
    return lzma.LZMADecompressor().decompress(image[begin:])


def require_tools():
    missing = [tool for tool in ("qemu-system-x86_64", "mmdebstrap", "mkfs.ext4") if shutil.which(tool) is None]
    if missing:
        raise RuntimeError(f"not installed: {', '.join(missing)} (see scripts/setup)")
