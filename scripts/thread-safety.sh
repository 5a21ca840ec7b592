#!/bin/sh
# Builds every library and program with clang and its thread-safety
# analysis, so that a lock rule broken against the annotations of
# base/thread_annotations.h fails the build (the g++ build ignores them).
set -eu
cd "$(dirname "$0")/.."
cmake -S . -B build-clang -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DTRV_THREAD_SAFETY=ON \
  -DTRV_BUILD_TESTS=ON -DTRV_BUILD_BENCH=OFF >/dev/null
cmake --build build-clang
echo "thread-safety analysis: no broken lock rule"
