#!/usr/bin/env python3
"""Compares the functions a built woodshed library exports with the ones its
public headers declare (every `WS_API ... name(` declaration). Reads ELF
shared objects through `nm -D` and Windows DLLs by parsing the PE export
directory, so it runs on Linux for both builds."""
import pathlib
import re
import struct
import subprocess
import sys


def declared(include_dir):
    names = set()
    for header in pathlib.Path(include_dir).glob("*.h"):
        text = header.read_text()
        for m in re.finditer(r"WS_API\s+[^;(]*?\b([a-z]{2}_[a-z0-9_]+)\s*\(", text):
            names.add(m.group(1))
    return names


def pe_exports(path):
    data = pathlib.Path(path).read_bytes()
    pe = struct.unpack_from("<I", data, 0x3C)[0]
    if data[pe:pe + 4] != b"PE\0\0":
        raise SystemExit(f"{path}: not a PE file")
    opt = pe + 24
    magic = struct.unpack_from("<H", data, opt)[0]
    dirs = opt + (112 if magic == 0x20B else 96)
    export_rva, _ = struct.unpack_from("<II", data, dirs)
    nsections = struct.unpack_from("<H", data, pe + 6)[0]
    opt_size = struct.unpack_from("<H", data, pe + 20)[0]
    sections = []
    for i in range(nsections):
        off = opt + opt_size + 40 * i
        vsize, va, rawsize, rawptr = struct.unpack_from("<IIII", data, off + 8)
        sections.append((va, max(vsize, rawsize), rawptr))

    def at(rva):
        for va, size, raw in sections:
            if va <= rva < va + size:
                return raw + rva - va
        raise SystemExit(f"{path}: RVA {rva:#x} outside every section")

    if export_rva == 0:
        return set()
    d = at(export_rva)
    nnames, = struct.unpack_from("<I", data, d + 24)
    names_rva, = struct.unpack_from("<I", data, d + 32)
    out = set()
    for i in range(nnames):
        name_rva, = struct.unpack_from("<I", data, at(names_rva) + 4 * i)
        start = at(name_rva)
        out.add(data[start:data.index(b"\0", start)].decode())
    return out


def elf_exports(path):
    text = subprocess.run(["nm", "-D", "--defined-only", path], check=True,
                          capture_output=True, text=True).stdout
    return {line.split()[-1] for line in text.splitlines() if line.split()[-2:-1] == ["T"]}


def main():
    lib, include_dir = sys.argv[1], sys.argv[2]
    want = declared(include_dir)
    head = pathlib.Path(lib).read_bytes()[:4]
    have = pe_exports(lib) if head[:2] == b"MZ" else elf_exports(lib)
    missing, extra = sorted(want - have), sorted(have - want)
    print(f"{lib}: {len(have)} exports, {len(want)} declared")
    if missing:
        print("declared but not exported: " + ", ".join(missing))
    if extra:
        print("exported but not declared: " + ", ".join(extra))
    return 1 if missing or extra else 0


if __name__ == "__main__":
    sys.exit(main())
