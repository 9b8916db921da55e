#!/usr/bin/env bash
# Builds everything and runs the whole suite three ways: plainly (warnings are
# errors), under AddressSanitizer + UndefinedBehaviorSanitizer, and the
# threaded tests under ThreadSanitizer; then a short bounded fuzz run.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
jobs=$(nproc)

echo "== plain build and tests"
scripts/build.sh build
ctest --test-dir build --output-on-failure -j "$jobs" --timeout 300

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
scripts/build.sh build-asan -DCMAKE_BUILD_TYPE=Debug "-DQBVISA_SANITIZE=address,undefined" -DQBVISA_BUILD_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs" --timeout 600

echo "== ThreadSanitizer (threaded tests)"
scripts/build.sh build-tsan -DCMAKE_BUILD_TYPE=Debug -DQBVISA_SANITIZE=thread -DQBVISA_BUILD_BENCH=OFF
TSAN_OPTIONS=halt_on_error=1 ctest --test-dir build-tsan --output-on-failure -j "$jobs" -L threads --timeout 600 --no-tests=ignore

echo "== short fuzz run"
scripts/fuzz.sh 15
echo "== all passed"
