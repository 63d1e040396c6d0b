#!/bin/sh
# make bench: the library against the wire protocol's own limit, on one zepgw.
#
#     scripts/bench.sh [--quick] [--raw FILE] [--zepgw PATH] [build dir]     (build dir: build/64)
#
# Every row runs raw_client (the protocol by hand) and zepbench (the library)
# alternately, REPS times each, first with default scheduling, then with zepgw
# and both clients pinned to CPU 0. The table shows medians, the ratio
# library/raw, and the spread (max - min) / median of each side. Then the
# C++ interface against the C call (cpp_overhead) and the memory figures.
# --quick (or BENCH_QUICK=1) runs 2 repetitions of 0.5 s, 100,000 calls for
# the heap growth and 9 C/C++ rounds of 1000 calls (else 21 of 2000).
# --raw FILE keeps every result line; --zepgw PATH measures against another
# zepgw binary than the build's.
set -u

reps=5 seconds=1 calls=1000000 cpprounds="21 2000" rawfile= zepgw=
[ "${BENCH_QUICK:-0}" = 1 ] && { reps=2 seconds=0.5 calls=100000 cpprounds="9 1000"; }
while [ $# -gt 0 ]; do
    case "$1" in
        --quick) reps=2 seconds=0.5 calls=100000 cpprounds="9 1000" ;;
        --raw) rawfile=${2:?--raw needs a file}; shift ;;
        --zepgw) zepgw=${2:?--zepgw needs a path}; shift ;;
        --help) sed -n '2,15p' "$0" | cut -c3-; exit 0 ;;
        -*) echo "bench: unknown option '$1' (see scripts/bench.sh --help)" >&2; exit 2 ;;
        *) break ;;
    esac
    shift
done
build=${1:-build/64}
zepgw=${zepgw:-$build/zepgw} raw="$build/bench/raw_client" lib="$build/bench/zepbench" cpp="$build/bench/cpp_overhead"
for program in "$zepgw" "$raw" "$lib" "$cpp"; do
    [ -x "$program" ] || { echo "bench: $program is missing; run make first" >&2; exit 2; }
done

. "$(dirname "$0")/zepgw-start.sh"
start_zepgw "$zepgw" zepbench bench || exit 1

# label | raw_client arguments | zepbench workload. Each library row is measured against the raw
# client with as many requests in flight: N threads against batches of N written back to back.
rows='sync 64 B, 1 thread|--workload sync --size 64|sync64
sync 64 B, 8 threads|--workload pipeline --depth 8 --size 64|sync64x8
sync 64 B, 32 threads|--workload pipeline --depth 32 --size 64|sync64x32
1000 async + get-reply-wait|--workload pipeline --depth 1000 --size 64|async1000
sync 32000 B, 1 thread|--workload sync --size 32000|sync32000'

# run <mode> <side> <label> <command...>: one result line, tagged, into the results file.
run() {
    mode=$1 side=$2 label=$3
    shift 3
    if ! line=$("$@" 2>"$workdir/err"); then
        echo "bench: $side failed for '$label' ($mode):" >&2
        cat "$workdir/err" >&2
        exit 1
    fi
    echo "$mode|$side|$label|$line" >>"$workdir/results"
    [ -z "$rawfile" ] || echo "$mode $side $line" >>"$rawfile"
}

measure() {
    mode=$1 pin=$2
    echo "$rows" | while IFS='|' read -r label rawargs workload; do
        rep=0
        while [ $rep -lt "$reps" ]; do
            # shellcheck disable=SC2086  # rawargs are words
            run "$mode" raw "$label" $pin "$raw" --port "$port" --seconds "$seconds" $rawargs
            run "$mode" library "$label" $pin "$lib" --port "$port" --seconds "$seconds" --workload "$workload"
            rep=$((rep + 1))
        done
    done
}

# The table of one mode: medians, ratio, spread; latencies of the library's sync rows.
table() {
    mode=$1
    echo
    echo "$mode ($reps x ${seconds} s per side, calls/s)"
    awk -F'|' -v mode="$mode" -v rows="$rows" '
        function field(line, key,   n, i, kv) {
            n = split(line, kv, " ")
            for (i = 1; i <= n; i++) if (index(kv[i], key "=") == 1) return substr(kv[i], length(key) + 2)
            return ""
        }
        function median(list,   n, v, i, j, t) {
            n = split(list, v, " ")
            for (i = 2; i <= n; i++) for (j = i; j > 1 && v[j - 1] + 0 > v[j] + 0; j--) { t = v[j]; v[j] = v[j - 1]; v[j - 1] = t }
            return n % 2 ? v[(n + 1) / 2] : (v[n / 2] + v[n / 2 + 1]) / 2
        }
        function spread(list,   n, v, i, lo, hi) {
            n = split(list, v, " "); lo = hi = v[1]
            for (i = 2; i <= n; i++) { if (v[i] + 0 < lo + 0) lo = v[i]; if (v[i] + 0 > hi + 0) hi = v[i] }
            return 100 * (hi - lo) / median(list)
        }
        $1 == mode {
            key = $3 SUBSEP $2
            rate[key] = rate[key] " " field($4, "rate")
            if (field($4, "p50_us") != "") { p50[key] = p50[key] " " field($4, "p50_us"); p99[key] = p99[key] " " field($4, "p99_us") }
        }
        END {
            printf "%-28s %10s %10s %7s %14s   %s\n", "workload", "raw", "library", "lib/raw", "spread raw/lib", "p50/p99 us raw | library"
            n = split(rows, r, "\n")
            for (i = 1; i <= n; i++) {
                split(r[i], part, "|"); label = part[1]
                rk = label SUBSEP "raw"; lk = label SUBSEP "library"
                mr = median(rate[rk]); ml = median(rate[lk])
                lat = ""
                if (lk in p50)
                    lat = sprintf("%s | %.0f/%.0f", (rk in p50) ? sprintf("%.0f/%.0f", median(p50[rk]), median(p99[rk])) : "-",
                                  median(p50[lk]), median(p99[lk]))
                line = sprintf("%-28s %10.0f %10.0f %7.2f %6.0f%%/%5.0f%%   %s", label, mr, ml, ml / mr, spread(rate[rk]), spread(rate[lk]), lat)
                sub(/ +$/, "", line)
                print line
            }
        }' "$workdir/results"
}

# One line: the C++ interface's zep::Connection::call against ZEP_ECI_Execute, alternating rounds.
cpp_overhead() {
    # shellcheck disable=SC2086  # cpprounds are two words
    if ! line=$("$cpp" --port "$port" $cpprounds 2>"$workdir/err"); then
        echo "bench: cpp_overhead failed:" >&2
        cat "$workdir/err" >&2
        exit 1
    fi
    [ -z "$rawfile" ] || echo "$line" >>"$rawfile"
    echo "$line" | awk '
        function field(key,   i) { for (i = 2; i <= NF; i++) if (index($i, key "=") == 1) return substr($i, length(key) + 2) }
        {
            printf "C++ call against C call, sync 64 B, 1 thread (%s x %s calls per side): C %.0f, C++ %.0f calls/s, C++/C %s (median of rounds), %s (all calls); goal >= 0.98\n",
                field("rounds"), field("calls"), field("c_rate"), field("cpp_rate"), field("ratio"), field("ratio_all")
        }'
}

memory() {
    if ! "$lib" --port "$port" --workload idle --connections 200 --workload growth --calls "$calls" \
        >"$workdir/memory" 2>"$workdir/err"; then
        echo "bench: the memory workloads failed:" >&2
        cat "$workdir/err" >&2
        exit 1
    fi
    [ -z "$rawfile" ] || cat "$workdir/memory" >>"$rawfile"
    awk '
        function field(key,   i) { for (i = 2; i <= NF; i++) if (index($i, key "=") == 1) return substr($i, length(key) + 2) }
        $2 == "per-idle-connection" {
            printf "memory per idle connection (%s open): resident %.1f KB, heap %.1f KB\n", field("count"), field("rss_bytes") / 1024, field("heap_bytes") / 1024
        }
        $2 == "growth-over-calls" {
            printf "growth over %s synchronous calls after a warm-up: heap %d bytes, resident %d bytes\n", field("count"), field("heap_bytes"), field("rss_bytes")
        }' "$workdir/memory"
}

echo "zepclient benchmark: $(date -u '+%Y-%m-%d %H:%M UTC'), $zepgw, $(nproc) CPUs," \
    "$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1), load $(cut -d' ' -f1-3 /proc/loadavg)"
: >"$workdir/results"
measure default "" || exit 1
table default
cpp_overhead
echo
memory
taskset -a -p -c 0 "$gwpid" >/dev/null || { echo "bench: cannot pin zepgw to CPU 0" >&2; exit 1; }
measure pinned "taskset -c 0" || exit 1
table "pinned"
