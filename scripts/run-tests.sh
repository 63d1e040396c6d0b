#!/usr/bin/env bash
# Runs the whole suite in each built flavour, then one summary line per flavour:
# run-tests.sh <flavour>...  Exit status 0 only when every test of every flavour passed.
set -uo pipefail

summary=()
status=0
for flavour in "$@"; do
    dir=build/$flavour
    log=$dir/ctest.log
    echo "==== Tests of the $flavour-bit flavour ===="
    ctest --test-dir "$dir" --output-on-failure -j"${JOBS:-2}" 2>&1 | tee "$log"
    result=${PIPESTATUS[0]}
    line=$(grep -E '^[0-9]+% tests passed' "$log" | tail -n 1)
    summary+=("$flavour-bit: ${line:-no test result (see $log)}")
    if [ "$result" -ne 0 ]; then
        status=1
        summary+=("$(sed -n '/^The following tests FAILED:/,$p' "$log" | grep -E '^[[:space:]]+[0-9]+ - ')")
    fi
done

echo
echo "==== Summary ===="
printf '%s\n' "${summary[@]}" | grep -v '^$'
[ "$status" -eq 0 ] && echo "All tests passed in every flavour." || echo "Some tests FAILED; the output of each flavour is in build/<flavour>/ctest.log."
exit "$status"
