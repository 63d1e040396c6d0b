#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang in build/fuzz and runs each for FUZZ_SECONDS (default 60).
# New inputs go to build/fuzz/work/<target>; the checked-in seeds of fuzz/corpus/<target> are only read.
# A crash leaves its input in build/fuzz/artifacts and fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-60}
scripts/ensure-deps.sh fuzz
[ -f build/fuzz/CMakeCache.txt ] ||
  cmake -S fuzz -B build/fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build build/fuzz -j"${JOBS:-2}"
mkdir -p build/fuzz/artifacts
status=0
for target in header eci_reply channel esi_reply exception; do
  mkdir -p "build/fuzz/work/$target"
  log=build/fuzz/$target.log
  echo "fuzz_$target: ${seconds} s"
  if ! build/fuzz/fuzz_$target -max_total_time="$seconds" -print_final_stats=1 -timeout=10 -rss_limit_mb=1024 \
       -artifact_prefix=build/fuzz/artifacts/"$target"- "build/fuzz/work/$target" "fuzz/corpus/$target" \
       >"$log" 2>&1; then
    echo "fuzz_$target FAILED; its log follows" >&2
    tail -n 60 "$log" >&2
    status=1
  fi
  grep -E 'stat::number_of_executed_units|stat::new_units_added' "$log" | sed "s/^/  /"
done
exit "$status"
