#!/usr/bin/env bash
# check_install.sh BUILD_DIR SIM_DIR: installs the build into a scratch
# prefix, then builds and runs a consumer through the CMake package and
# through pkg-config, as a user's project would.
set -euo pipefail
build=$1 sim=$2 here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
lib=$(find "$scratch/prefix" -name libQBVISA.so.1 -printf '%h\n')
for name in libQBVISA.so libQBVISA.so.1 libQBVISA.so.1.1.77; do
  test -e "$lib/$name" || { echo "missing $name"; exit 1; }
done
test ! -e "$lib/libvisa.so" || { echo "the simulated VISA must not be installed"; exit 1; }
# The station's VISA would be on the linker's path; here it is the simulated one.
# Ninja, as for the project itself: a fresh machine has no make.
cmake -S "$here" -B "$scratch/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" \
      -DCMAKE_EXE_LINKER_FLAGS="-Wl,-rpath-link,$sim" >/dev/null
cmake --build "$scratch/cmake" >/dev/null
LD_LIBRARY_PATH="$lib:$sim" "$scratch/cmake/consumer"
flags=$(PKG_CONFIG_PATH="$lib/pkgconfig" pkg-config --cflags --libs qbvisa)
cc "$here/consumer.c" $flags -Wl,-rpath-link,"$sim" -o "$scratch/consumer-pc"
LD_LIBRARY_PATH="$lib:$sim" "$scratch/consumer-pc"
