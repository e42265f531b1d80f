#!/usr/bin/env python3
"""Let an ELF64 file built against a newer glibc load on this machine's glibc.

Usage: glibc_compat_patch.py FILE...
       glibc_compat_patch.py --provided   (the names camfetch defines, one a line)

The live555 binaries we fetch were built against a newer glibc than the one
we run on.  A few of their imports exist only under a newer symbol version
(e.g. __isoc23_strtol@GLIBC_2.38, which the C23 headers substitute for
strtol); camfetch defines those itself (src/core/glibc_compat.cpp, whose
__isoc23_ names are read from the source), so the only thing standing in the
way is the version requirement recorded in the file.  For every glibc version
newer than ours we:

  * rename its entry in .gnu.version_r to an older glibc version the file
    already needs (name offset and hash copied, vna_other kept), so the
    loader's "is this version available?" check passes and every version
    index stays valid;
  * set the .gnu.version entry of each symbol that used it to 1 (global), so
    the symbol is bound without a version, to our definition.

This is only sound for symbols we provide.  Any other symbol that needs a
glibc newer than ours is reported on one line and the file is left untouched
(exit 1).  Running the script on an already patched file changes nothing.
"""
import os
import re
import struct
import sys
import tempfile

COMPAT_SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)),
                             "..", "src", "core", "glibc_compat.cpp")


def provided_names():
    """The C23 names src/core/glibc_compat.cpp defines, so their version requirement can go."""
    with open(COMPAT_SOURCE) as f:
        return set(re.findall(r"\b__isoc23_[a-z]\w*", f.read()))


PROVIDED = provided_names()

SHT_DYNSYM = 11
SHT_GNU_VERNEED = 0x6FFFFFFE
SHT_GNU_VERSYM = 0x6FFFFFFF
VER_NDX_GLOBAL = 1
VERSYM_HIDDEN = 0x8000


def glibc_version(name):
    """'GLIBC_2.2.5' -> (2, 2, 5); None for anything else (GLIBC_PRIVATE, ...)."""
    if not name.startswith("GLIBC_"):
        return None
    try:
        return tuple(int(part) for part in name[len("GLIBC_"):].split("."))
    except ValueError:
        return None


def machine_glibc():
    # "glibc 2.36" -> (2, 36)
    return tuple(int(p) for p in os.confstr("CS_GNU_LIBC_VERSION").split()[1].split("."))


class Elf:
    def __init__(self, data):
        if data[:4] != b"\x7fELF" or data[4] != 2:
            raise ValueError("not an ELF64 file")
        self.data = data
        self.end = "<" if data[5] == 1 else ">"
        shoff, = self.unpack("Q", 0x28)
        shentsize, shnum = self.unpack("HH", 0x3A)
        # (type, offset, size, link, entsize) of every section
        self.sections = []
        for i in range(shnum):
            base = shoff + i * shentsize
            _, sh_type, _, _, off, size, link, _, _, entsize = self.unpack("IIQQQQIIQQ", base)
            self.sections.append((sh_type, off, size, link, entsize))

    def unpack(self, fmt, offset):
        return struct.unpack_from(self.end + fmt, self.data, offset)

    def pack(self, fmt, offset, *values):
        struct.pack_into(self.end + fmt, self.data, offset, *values)

    def section(self, sh_type):
        return next((s for s in self.sections if s[0] == sh_type), None)

    def string(self, strtab_offset, index):
        start = strtab_offset + index
        return self.data[start:self.data.index(b"\0", start)].decode()


def patch(path):
    """Patch PATH in place; returns a list of messages, raises on refusal."""
    with open(path, "rb") as f:
        elf = Elf(bytearray(f.read()))
    verneed = elf.section(SHT_GNU_VERNEED)
    versym = elf.section(SHT_GNU_VERSYM)
    dynsym = elf.section(SHT_DYNSYM)
    if not (verneed and versym and dynsym):
        return []  # nothing versioned to fix
    strtab = elf.sections[verneed[3]][1]
    ours = machine_glibc()

    # Walk the version needs: per needed file, its vernaux entries.
    too_new = {}  # version index -> (vernaux offset, version name, needed file)
    oldest_ok = {}  # needed file -> (name offset, hash) of its oldest usable glibc version
    vn = verneed[1]
    while True:
        _, cnt, file_name, aux, nxt = elf.unpack("HHIII", vn)
        needed_file = elf.string(strtab, file_name)
        va = vn + aux
        for _ in range(cnt):
            vhash, _, other, name, vnext = elf.unpack("IHHII", va)
            version = glibc_version(elf.string(strtab, name))
            if version and version > ours:
                too_new[other] = (va, elf.string(strtab, name), needed_file)
            elif version and (needed_file not in oldest_ok or version < oldest_ok[needed_file][0]):
                oldest_ok[needed_file] = (version, name, vhash)
            va += vnext
        if not nxt:
            break
        vn += nxt
    if not too_new:
        return []

    # Which imports use the too-new versions?
    dynstr = elf.sections[dynsym[3]][1]
    users = {index: [] for index in too_new}
    for i in range(dynsym[2] // dynsym[4]):
        ndx, = elf.unpack("H", versym[1] + 2 * i)
        if ndx & ~VERSYM_HIDDEN in users:
            name, = elf.unpack("I", dynsym[1] + i * dynsym[4])
            users[ndx & ~VERSYM_HIDDEN].append((i, elf.string(dynstr, name)))

    unprovided = sorted(
        f"{sym}@{too_new[index][1]}"
        for index, syms in users.items() for _, sym in syms if sym not in PROVIDED)
    if unprovided:
        raise RuntimeError(
            "needs symbols from a newer glibc than this machine's "
            f"({'.'.join(map(str, ours))}) that camfetch does not provide: " + ", ".join(unprovided))
    missing_base = sorted({f for _, _, f in too_new.values() if f not in oldest_ok})
    if missing_base:
        raise RuntimeError("no older glibc version needed from " + ", ".join(missing_base)
                           + " to stand in for the newer one")

    messages = []
    for index, (va, version_name, needed_file) in too_new.items():
        _, name, vhash = oldest_ok[needed_file]
        _, flags, other, _, vnext = elf.unpack("IHHII", va)
        elf.pack("IHHII", va, vhash, flags, other, name, vnext)
        for i, _ in users[index]:
            elf.pack("H", versym[1] + 2 * i, VER_NDX_GLOBAL)
        syms = ", ".join(sym for _, sym in users[index]) or "no symbols"
        messages.append(f"dropped {version_name} ({syms})")

    # Replace the file atomically, keeping its mode.
    fd, tmp = tempfile.mkstemp(dir=os.path.dirname(os.path.abspath(path)))
    with os.fdopen(fd, "wb") as f:
        f.write(elf.data)
    os.chmod(tmp, os.stat(path).st_mode & 0o7777)
    os.replace(tmp, path)
    return messages


def main(paths):
    if not paths:
        print(__doc__.strip().splitlines()[2], file=sys.stderr)
        return 2
    if paths == ["--provided"]:
        print("\n".join(sorted(PROVIDED)))
        return 0
    status = 0
    for path in paths:
        try:
            for message in patch(path):
                print(f"{path}: {message}")
        except (OSError, ValueError, RuntimeError, struct.error) as e:
            print(f"{path}: {e}", file=sys.stderr)
            status = 1
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
