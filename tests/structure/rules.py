# SPDX-License-Identifier: Apache-2.0
# What holds for every file of the source tree. Each rule yields its violations as "path:line: what is wrong".

import os
import re

MAXIMUM_LINES = 600

CORE = ("protocols", "support", "operations", "client", "daemon")

# The directories whose headers each directory may include, besides its own. "platform" stands for the interfaces
# in that directory itself; a binding is an implementation, chosen when programs are linked.
LAYERS = {
    "platform": (),
    "platform/common": ("platform",),
    "platform/linux": ("platform", "platform/common"),
    "platform/simulated": ("platform", "platform/common"),
    "protocols": ("platform",),
    "support": ("platform", "protocols"),
    "operations": ("platform", "protocols", "support"),
    "client": ("platform", "protocols", "support", "operations"),
    "daemon": ("platform", "protocols", "support", "operations", "client"),
    "services": ("platform", "protocols", "support"),
    "tools": ("platform", "protocols", "support"),
}
# The rooms of the Linux binding. Each may include the headers of those before it, besides its own.
LINUX_ROOMS = ("runtime", "wire", "volumes", "preferences", "system", "ipc")

# These may include anything of the project's.
ABOVE_ALL = ("tests", "bench")

# Vocabulary needs only what values and interface tables are made of.
PROTOCOLS_PLATFORM_HEADERS = ("platform/Value.h", "platform/IpcInterface.h", "platform/Limits.h")

STANDARD_HEADERS = frozenset("""
    algorithm any array atomic barrier bit bitset cassert cctype cerrno cfenv cfloat charconv chrono cinttypes climits
    clocale cmath codecvt compare complex concepts condition_variable coroutine csetjmp csignal cstdarg cstddef cstdint
    cstdio cstdlib cstring ctime cuchar cwchar cwctype deque exception execution filesystem format forward_list fstream
    functional future initializer_list iomanip ios iosfwd iostream istream iterator latch limits list locale map memory
    memory_resource mutex new numbers numeric optional ostream queue random ranges ratio regex scoped_allocator
    semaphore set shared_mutex source_location span sstream stack stdexcept stop_token streambuf string string_view
    strstream syncstream system_error thread tuple type_traits typeindex typeinfo unordered_map unordered_set utility
    valarray variant vector version
""".split())

# What only platform/ may know of, and the tests of its Linux binding and of the daemon on it, which speak to it through
# the same library, as do the peers it is measured beside.
SYSTEM_LIBRARY_USERS = ("platform/", "tests/linux/", "tests/hostile/", "bench/")
SYSTEM_LIBRARIES = re.compile(r"^(systemd/|expat|libmount|sd-)")

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')

SPDX = "SPDX-License-Identifier: Apache-2.0"

# Text that belongs to the making of the project, not to the project. Put together from pieces, or this file would
# be the first to break its rule.
FOREIGN_TEXT = re.compile(
    "|".join((
        r"\bpart [1-4]" + r"\.[0-9]\b",
        r"\bspeci" + r"fication\b",
        r"\b(spec|design)" + r"\.md",
        r"\bas speci" + r"fied\b",
        r"/(work|" + r"farm)/",
        r"\b(to" + r"do|fix" + r"me|xx" + r"x)\b",
    )), re.IGNORECASE)

CODE = (".h", ".cpp")
COMMENTED = CODE + (".cmake", ".py", ".sh", ".service", ".socket", ".timer", ".path", ".conf")
SKIPPED_DIRECTORIES = ("build", ".git", "__pycache__")
# Written by others, or pictures. A worktree has a file where a clone has a directory.
SKIPPED_FILES = ("LICENSE", ".git")
SKIPPED_SUFFIXES = (".svg", ".png", ".bin")


def files(root):
    """The paths of all source files beneath root, relative to it, in order."""
    for directory, directories, names in os.walk(root):
        relative = os.path.relpath(directory, root)
        directories[:] = sorted(
            d for d in directories if d not in SKIPPED_DIRECTORIES and not (relative == "." and d.startswith("build-")))
        for name in sorted(names):
            path = os.path.normpath(os.path.join(relative, name))
            if name not in SKIPPED_FILES and not name.endswith(SKIPPED_SUFFIXES) and is_text(os.path.join(root, path)):
                yield path


def is_text(path):
    if os.path.islink(path):
        return False
    with open(path, "rb") as file:
        return b"\0" not in file.read(4096)


def lines(root, path):
    with open(os.path.join(root, path), encoding="utf-8", errors="replace") as file:
        return file.read().splitlines()


def layer(path):
    """The layer of a source file or header: its top directory, or the binding within platform/."""
    parts = path.split("/")
    if parts[0] == "platform" and len(parts) > 2:
        return "/".join(parts[:2])
    return parts[0]


def includes(root):
    """(path, line number, '<' or '"', header) of every include."""
    for path in files(root):
        if path.endswith(CODE):
            for number, line in enumerate(lines(root, path), 1):
                match = INCLUDE.match(line)
                if match:
                    yield path, number, match.group(1), match.group(2)


def include_direction(root):
    """Includes of the project's own headers point down the list of layers."""
    for path, number, kind, header in includes(root):
        source = layer(path)
        if kind != '"' or source in ABOVE_ALL or "/" not in header:
            continue
        target = layer(header)
        if source not in LAYERS:
            yield f"{path}:{number}: {source}/ has no place among the layers"
        elif target != source and target not in LAYERS[source]:
            yield f"{path}:{number}: {source}/ must not include {header}"
        elif source == "protocols" and target == "platform" and header not in PROTOCOLS_PLATFORM_HEADERS:
            yield f"{path}:{number}: protocols/ takes only values and interface tables from platform/, not {header}"


def linux_rooms(root):
    """Within the Linux binding, includes point at rooms that come before."""
    binding = "platform/linux/"
    for path, number, kind, header in includes(root):
        if kind != '"' or not path.startswith(binding) or not header.startswith(binding):
            continue
        source, target = (name[len(binding):].split("/")[0] for name in (path, header))
        if source not in LINUX_ROOMS:
            yield f"{path}:{number}: {source}/ has no place among the rooms"
        elif target not in LINUX_ROOMS[:LINUX_ROOMS.index(source) + 1]:
            yield f"{path}:{number}: {source}/ must not include {header}"


def include_paths(root):
    """The project's own headers are included in quotes, by their paths from the top."""
    for path, number, kind, header in includes(root):
        exists = os.path.isfile(os.path.join(root, header))
        if kind == '"' and ("/" not in header or ".." in header.split("/") or not exists):
            yield f'{path}:{number}: "{header}" is no path to a header from the top of the tree'
        elif kind == "<" and exists:
            yield f'{path}:{number}: <{header}> is the project\'s own and belongs in quotes'


def third_party(root):
    """The core and the platform's interfaces need nothing but the standard library, and only platform/ knows of the
    libraries that bind it to the system."""
    for path, number, kind, header in includes(root):
        if kind != "<":
            continue
        source = layer(path)
        if source in CORE + ("platform",) and header not in STANDARD_HEADERS:
            yield f"{path}:{number}: <{header}> is not of the standard library, all that {source}/ may use"
        elif not path.startswith(SYSTEM_LIBRARY_USERS) and SYSTEM_LIBRARIES.match(header):
            yield f"{path}:{number}: only platform/ may include <{header}>"


def conditional_code(root):
    """The core is the same text on every platform."""
    conditional = re.compile(r"^\s*#\s*(if|ifdef|ifndef|elif)\b")
    for path in files(root):
        if path.endswith(CODE) and layer(path) in CORE:
            for number, line in enumerate(lines(root, path), 1):
                if conditional.match(line):
                    yield f"{path}:{number}: conditional compilation in the core"


def licence(root):
    """Every source begins with its licence, after the interpreter's line of a script."""
    for path in files(root):
        text = lines(root, path)
        script = bool(text) and text[0].startswith("#!")
        if not (script or path.endswith(COMMENTED) or os.path.basename(path) == "CMakeLists.txt"):
            continue
        mark = "//" if path.endswith(CODE) else "#"
        place = 1 if script else 0
        if text[place:place + 1] != [f"{mark} {SPDX}"]:
            yield f"{path}:{place + 1}: should be the line \"{mark} {SPDX}\""


def length(root):
    """No file is so long that it must be about several things."""
    for path in files(root):
        count = len(lines(root, path))
        if count > MAXIMUM_LINES:
            yield f"{path}:{count}: {count} lines, more than {MAXIMUM_LINES}"


def foreign_text(root):
    """No file speaks of how it came to be, of one machine's directories or of what is left to do."""
    for path in files(root):
        for number, line in enumerate(lines(root, path), 1):
            match = FOREIGN_TEXT.search(line)
            if match:
                yield f"{path}:{number}: \"{match.group(0)}\""


ALL = (include_direction, linux_rooms, include_paths, third_party, conditional_code, licence, length, foreign_text)
