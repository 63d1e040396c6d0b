#!/usr/bin/env bash
# Builds the 64-bit flavour with gcc coverage in build/coverage, runs the whole suite, and prints line and
# branch coverage of the library (source/) and of zepgw (gateway/, without its tests) per file.
# Fails when the library is below 90% of lines or 74% of branches, or zepgw below 95% of lines: the floors sit
# just under what the suite reaches, so that a change that drops tests must replace what they reached.
set -euo pipefail
exec </dev/null

cd "$(dirname "$0")/.."
jobs=${JOBS:-2}
dir=build/coverage
library_lines_floor=90
library_branches_floor=74
zepgw_lines_floor=95

scripts/ensure-deps.sh coverage
cmake -S . -B "$dir" -DZEP_COVERAGE=ON >/dev/null
cmake --build "$dir" -j"$jobs"
# Counts from an earlier run would add to this one.
find "$dir" -name '*.gcda' -delete
ctest --test-dir "$dir" --output-on-failure -j"$jobs"

# report <name> <gcovr filter options...>: prints the per-file table, then "lines branches" percentages.
report() {
  local summary=$dir/coverage-$1.json
  shift
  gcovr --root . --object-directory "$dir" "$@" --exclude-unreachable-branches --exclude-throw-branches \
    --json-summary-pretty --json-summary "$summary"
  python3 - "$summary" <<'PY'
import json, sys
s = json.load(open(sys.argv[1]))
for f in s["files"] + [s]:
    for key in ("line_percent", "branch_percent"):
        f[key] = f[key] if f[key] is not None else 100.0
row = "%-34s %7s %7s %9s %9s"
print(row % ("file", "lines", "line %", "branches", "branch %"))
for f in s["files"]:
    print(row % (f["filename"], f["line_total"], "%.1f" % f["line_percent"],
                 f["branch_total"], "%.1f" % f["branch_percent"]))
print(row % ("TOTAL", s["line_total"], "%.1f" % s["line_percent"],
             s["branch_total"], "%.1f" % s["branch_percent"]))
print("%.1f %.1f" % (s["line_percent"], s["branch_percent"]))
PY
}

# below <value> <floor>: true when value < floor.
below() { awk -v v="$1" -v f="$2" 'BEGIN { exit !(v < f) }'; }

echo; echo "== library (source/) =="
report library --filter 'source/' >"$dir/coverage-library.txt"
head -n -1 "$dir/coverage-library.txt"
echo; echo "== zepgw (gateway/, without its tests) =="
report zepgw --filter 'gateway/' --exclude 'gateway/tests/' >"$dir/coverage-zepgw.txt"
head -n -1 "$dir/coverage-zepgw.txt"
library=$(tail -n 1 "$dir/coverage-library.txt")
zepgw=$(tail -n 1 "$dir/coverage-zepgw.txt")
read -r library_lines library_branches <<<"$library"
read -r zepgw_lines zepgw_branches <<<"$zepgw"
echo
echo "library: ${library_lines}% lines, ${library_branches}% branches (floors ${library_lines_floor}%, ${library_branches_floor}%)"
echo "zepgw:   ${zepgw_lines}% lines, ${zepgw_branches}% branches (floor ${zepgw_lines_floor}% lines)"
status=0
if below "$library_lines" "$library_lines_floor"; then echo "library line coverage is below the floor" >&2; status=1; fi
if below "$library_branches" "$library_branches_floor"; then echo "library branch coverage is below the floor" >&2; status=1; fi
if below "$zepgw_lines" "$zepgw_lines_floor"; then echo "zepgw line coverage is below the floor" >&2; status=1; fi
exit "$status"
