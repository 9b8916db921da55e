#!/usr/bin/env bash
# fuzz.sh SECONDS: builds the fuzz targets with clang (libFuzzer,
# AddressSanitizer, UndefinedBehaviorSanitizer) in build-fuzz and runs each
# for SECONDS seconds, starting from its committed corpus: the text-command
# target (new inputs in build-fuzz/scpi-corpus) and the rack server's message
# decoding (build-fuzz/rack-corpus). A crashing input is saved under
# fuzz-out/ and the script exits non-zero.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
# Warnings are the plain gcc build's business; clang's own set would only
# stop the fuzzer from being built.
cmake -S . -B build-fuzz -G Ninja \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQBVISA_BUILD_FUZZ=ON -DQBVISA_BUILD_BENCH=OFF -DQBVISA_WERROR=OFF \
  "-DQBVISA_SANITIZE=address,undefined" >/dev/null
cmake --build build-fuzz --target scpi_fuzz rack_fuzz --parallel "$(nproc)"
mkdir -p build-fuzz/scpi-corpus build-fuzz/rack-corpus fuzz-out
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  build-fuzz/tests/fuzz/scpi_fuzz build-fuzz/scpi-corpus tests/fuzz/corpus \
  -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=20 -max_len=4096 \
  -print_final_stats=1 -artifact_prefix=fuzz-out/
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  build-fuzz/tests/fuzz/rack_fuzz build-fuzz/rack-corpus tests/fuzz/rack_corpus \
  -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=20 -max_len=8192 \
  -print_final_stats=1 -artifact_prefix=fuzz-out/
