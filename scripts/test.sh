#!/bin/sh
# Installs what the tests need (compilers, libraries, the mail servers and
# proxies the network tests start on loopback), builds, runs every test, then
# builds once more with clang's thread-safety analysis, then runs each fuzz
# target for a bounded time.
#   FUZZ_SECONDS   seconds per fuzz target (default 60; 0 skips fuzzing)
#   CTEST_ARGS     extra arguments for ctest (for example "-L unit")
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh build test servers fuzz bench
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTRV_BUILD_TESTS=ON -DTRV_BUILD_BENCH=ON >/dev/null
cmake --build build
# shellcheck disable=SC2086
ctest --test-dir build --output-on-failure -j2 --timeout 900 ${CTEST_ARGS:-}
scripts/thread-safety.sh
scripts/fuzz.sh "${FUZZ_SECONDS:-60}"
