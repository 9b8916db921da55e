#!/usr/bin/env python3
"""exports_test.py LIBRARY HEADER...: fails when the library exports a
C++-mangled name (C++ must stay inside) or leaves undefined a function or
variable that a header declares with QBVISA_EXPORT."""
import re
import subprocess
import sys

# "QBVISA_EXPORT <type> name(" or "QBVISA_EXPORT extern <type> name[...];"
DECLARATION = re.compile(r"QBVISA_EXPORT\s+(?:extern\s+)?[^;(]*?\b([A-Za-z_]\w*)\s*(?:\(|\[|;)")

library, headers = sys.argv[1], sys.argv[2:]
declared = set()
for path in headers:
    with open(path, encoding="utf-8") as header:
        text = re.sub(r"/\*.*?\*/|//[^\n]*|#define\s+QBVISA_EXPORT[^\n]*", " ", header.read(), flags=re.S)
    declared.update(DECLARATION.findall(text))
listing = subprocess.run(["nm", "-D", "--defined-only", library], check=True, capture_output=True, text=True)
exported = {f[2].split("@")[0] for f in map(str.split, listing.stdout.splitlines()) if len(f) >= 3}
mangled = sorted(name for name in exported if name.startswith("_Z"))
missing = sorted(declared - exported)
for what, names in (("C++-mangled symbols exported", mangled), ("declared but not defined", missing)):
    if names:
        print("%s by %s (%d):\n  %s" % (what, library, len(names), "\n  ".join(names)))
if mangled or missing or not headers:
    sys.exit(1)
print("%d declared names exported, none mangled" % len(declared))
