#!/bin/sh
# check_install.sh PYTHON SOURCE WORKDIR: installs the package offline with
# pip (no index, no build isolation: only Debian's setuptools) from a copy of
# SOURCE, then imports it from the install with the source off the path and
# checks the pytest plugin is registered through its entry point.
set -eu
python=$1 source=$2 work=$3
rm -rf "$work" && mkdir -p "$work"
cp -r "$source/pyproject.toml" "$source/README.md" "$source/qbvisa" "$work/"
mkdir "$work/src" && mv "$work/pyproject.toml" "$work/README.md" "$work/qbvisa" "$work/src/"
"$python" -m pip install -q --no-index --no-build-isolation --no-deps --no-cache-dir --disable-pip-version-check \
  --target "$work/target" "$work/src"
test -f "$work/target/qbvisa/py.typed"
cd "$work"
PYTHONPATH="$work/target" "$python" - <<'PY'
import qbvisa, importlib.metadata as md
assert qbvisa.__file__.startswith("target/") or "/target/" in qbvisa.__file__, qbvisa.__file__
qbvisa.sim.use()
assert qbvisa.connect("GPIB0::5::INSTR").open(0).point_count == 600
points = [e for e in md.entry_points(group="pytest11") if e.value == "qbvisa.testing"]
assert points, "pytest11 entry point missing"
PY
