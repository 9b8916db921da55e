#!/usr/bin/env python3
"""Checks the dynamic symbol table of libQBVISA.so.1 against the C headers.

Usage: exports_test.py LIBRARY HEADER...

Fails when the library exports a C++-mangled name (C++ must stay inside) or
when a function or variable that a header declares with QBVISA_EXPORT is not
defined by the library.
"""
import re
import subprocess
import sys

# "QBVISA_EXPORT <type> name(" or "QBVISA_EXPORT extern <type> name[...];"
DECLARATION = re.compile(
    r"QBVISA_EXPORT\s+(?:extern\s+)?[^;(]*?\b([A-Za-z_]\w*)\s*(?:\(|\[|;)")


def declared_names(header_paths):
    names = set()
    for path in header_paths:
        with open(path, encoding="utf-8") as header:
            text = header.read()
        text = re.sub(r"/\*.*?\*/", " ", text, flags=re.S)
        text = re.sub(r"//[^\n]*", " ", text)
        text = re.sub(r"#define\s+QBVISA_EXPORT[^\n]*", " ", text)
        names.update(DECLARATION.findall(text))
    return names


def exported_names(library):
    listing = subprocess.run(["nm", "-D", "--defined-only", library],
                             check=True, capture_output=True, text=True)
    names = set()
    for line in listing.stdout.splitlines():
        fields = line.split()
        if len(fields) >= 3:
            names.add(fields[2].split("@")[0])
    return names


def main(argv):
    if len(argv) < 3:
        print(__doc__)
        return 2
    library, headers = argv[1], argv[2:]
    declared = declared_names(headers)
    exported = exported_names(library)
    problems = []
    mangled = sorted(name for name in exported if name.startswith("_Z"))
    if mangled:
        problems.append("C++-mangled symbols exported by %s (%d):\n  %s" %
                        (library, len(mangled), "\n  ".join(mangled)))
    missing = sorted(declared - exported)
    if missing:
        problems.append(
            "declared in the headers but not defined by %s (%d of %d):\n  %s"
            % (library, len(missing), len(declared), "\n  ".join(missing)))
    if problems:
        print("\n".join(problems))
        return 1
    print("%d declared names exported, none mangled" % len(declared))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
