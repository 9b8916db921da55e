#!/usr/bin/env bash
# build.sh DIR [cmake options...]: configure and build into DIR (incremental).
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1; shift
cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
cmake --build "$dir" --parallel "$(nproc)"
