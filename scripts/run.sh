#!/bin/sh
# Installs what the build needs, builds, and runs trvmail-cli with the given
# arguments ("storages" when none are given).
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh build
cmake -S . -B build-app -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTRV_BUILD_TESTS=OFF -DTRV_BUILD_BENCH=OFF >/dev/null
cmake --build build-app
if [ -x build-app/app/trvmail-cli ]; then
  [ $# -eq 0 ] && set -- storages
  exec build-app/app/trvmail-cli "$@"
fi
echo "built: $(find build-app -name '*.a' | tr '\n' ' ')"
