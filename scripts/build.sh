#!/usr/bin/env bash
# Configures (the first time) and builds one flavour quietly: build.sh <32|64> [target...].
# The build's output goes to build/<flavour>/build.log and is shown only when the build fails.
set -euo pipefail

flavour=${1:?usage: build.sh <32|64> [target...]}
shift
dir=build/$flavour
log=$dir/build.log
mkdir -p "$dir"

# The tests need the GoogleTest sources; a flavour configured without them gets its tests once they are here.
tests=OFF
[ -f /usr/src/googletest/CMakeLists.txt ] && tests=ON
configure=()
grep -qs "^ZEP_BUILD_TESTS:BOOL=$tests\$" "$dir/CMakeCache.txt" ||
    configure=(cmake -S . -B "$dir" -DZEP_BUILD_TESTS=$tests)
[ ${#configure[@]} -gt 0 ] && [ "$flavour" = 32 ] && configure+=(-DZEP_M32=ON)

targets=()
for target in "$@"; do targets+=(--target "$target"); done

echo "Building the $flavour-bit flavour${1:+ ($*)}"
: >"$log"
if { [ ${#configure[@]} -eq 0 ] || "${configure[@]}" >>"$log" 2>&1; } &&
   cmake --build "$dir" -j"${JOBS:-2}" "${targets[@]}" >>"$log" 2>&1; then
    exit 0
fi
cat "$log" >&2
echo "The $flavour-bit build failed; its output is above and in $log" >&2
exit 1
