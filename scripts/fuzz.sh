#!/usr/bin/env bash
# fuzz.sh SECONDS [TARGET...]: builds the fuzz targets with clang (libFuzzer,
# AddressSanitizer, UndefinedBehaviorSanitizer) in build-fuzz and runs each
# for SECONDS seconds, starting from its committed corpus. Targets: scpi (text
# commands), reply (everything a chassis answers), bench (bench files), rack
# (the rack server's message decoding); all four when none is named. New inputs go to build-fuzz/TARGET-corpus; a
# crashing input is saved under fuzz-out/ and the script exits non-zero.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(scpi reply bench rack)
# Warnings are the plain gcc build's business; clang's own set would only
# stop the fuzzer from being built.
cmake -S . -B build-fuzz -G Ninja \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQBVISA_BUILD_FUZZ=ON -DQBVISA_BUILD_BENCH=OFF -DQBVISA_WERROR=OFF \
  "-DQBVISA_SANITIZE=address,undefined" >/dev/null
cmake --build build-fuzz --target "${targets[@]/%/_fuzz}" --parallel "$(nproc)"
mkdir -p fuzz-out
for target in "${targets[@]}"; do
  seeds=tests/fuzz/${target}_corpus
  [ "$target" = scpi ] && seeds=tests/fuzz/corpus
  mkdir -p "build-fuzz/$target-corpus"
  echo "== fuzzing $target for $seconds s"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "build-fuzz/tests/fuzz/${target}_fuzz" "build-fuzz/$target-corpus" "$seeds" \
    -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=20 -max_len=8192 \
    -print_final_stats=1 -artifact_prefix="fuzz-out/$target-"
done
