#!/bin/sh
# Installs what the build needs, builds, and runs trvmail-cli with the given
# arguments ("storages" when none are given). Standard output carries the
# program's output alone: package and build messages go to standard error,
# and nothing is said when nothing had to be rebuilt.
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh build >&2
launcher=""
command -v ccache >/dev/null 2>&1 && launcher="-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache"
# shellcheck disable=SC2086
cmake -S . -B build-app -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTRV_BUILD_TESTS=OFF -DTRV_BUILD_BENCH=OFF \
  $launcher >/dev/null
status_file=build-app/.build-status
{ cmake --build build-app 2>&1; echo $? >"$status_file"; } | grep -v '^ninja: no work to do\.$' >&2 || true
status=$(cat "$status_file")
rm -f "$status_file"
[ "$status" -eq 0 ] || exit "$status"
if [ -x build-app/app/trvmail-cli ]; then
  [ $# -eq 0 ] && set -- storages
  exec build-app/app/trvmail-cli "$@"
fi
echo "built: $(find build-app -name '*.a' | tr '\n' ' ')" >&2
