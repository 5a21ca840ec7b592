#!/bin/sh
# Builds the libFuzzer targets with clang (address and undefined-behaviour
# sanitizers) and runs each for the given number of seconds (default 60).
# Fails on the first crash; the crashing input is left in build-fuzz/crashes.
set -eu
cd "$(dirname "$0")/.."
seconds="${1:-60}"
[ "$seconds" -gt 0 ] || exit 0
cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DTRV_BUILD_FUZZ=ON -DTRV_BUILD_TESTS=OFF -DTRV_BUILD_BENCH=OFF >/dev/null
cmake --build build-fuzz --target fuzzers
mkdir -p build-fuzz/crashes
for target in build-fuzz/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  corpus="build-fuzz/corpus/$name"
  mkdir -p "$corpus"
  seeds="fuzz/corpus/${name#fuzz_}"
  [ -d "$seeds" ] || seeds=""
  echo "fuzzing $name for ${seconds}s"
  status=0
  "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -artifact_prefix="build-fuzz/crashes/$name-" -print_final_stats=1 "$corpus" $seeds \
    >"build-fuzz/$name.log" 2>&1 || status=$?
  tail -n 12 "build-fuzz/$name.log"
  if [ "$status" -ne 0 ]; then
    echo "fuzz target $name failed (exit $status); see build-fuzz/$name.log" >&2
    failed=1
  fi
done
exit "${failed:-0}"
