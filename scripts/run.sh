#!/bin/sh
# Installs what the build needs, builds, and runs trvmail-cli with the given
# arguments ("storages" when none are given).
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh build
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTRV_BUILD_TESTS=OFF >/dev/null
cmake --build build
if [ -x build/app/trvmail-cli ]; then
  [ $# -eq 0 ] && set -- storages
  exec build/app/trvmail-cli "$@"
fi
echo "built: $(find build -name '*.a' | tr '\n' ' ')"
