#!/usr/bin/env bash
# Runs examples/demo.c against a zepgw of the same build: run-demo.sh <build dir>.
# Builds nothing (make demo builds first). However it ends, by an error or a signal, zepgw and the demo are
# stopped by their pids and the temporary folder goes; when the demo fails, zepgw's log is shown.
set -u

build=${1:?usage: run-demo.sh <build dir>}
zepgw="$build/zepgw"
demo="$build/demo"
port_wait=10      # seconds zepgw may take to report its port
demo_limit=60     # seconds the demo may run
for program in "$zepgw" "$demo"; do
    if [ ! -x "$program" ]; then
        echo "run-demo: $program is missing; run make demo" >&2
        exit 2
    fi
done

workdir=$(mktemp -d "${TMPDIR:-/tmp}/zepdemo.XXXXXX") || exit 2
gwpid=
demopid=
cleanup() {
    trap - EXIT INT TERM HUP
    for pid in $demopid $gwpid; do
        kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
    done
    rm -rf "$workdir"
}
fail() {
    echo "run-demo: $1" >&2
    echo "---- zepgw's log ----" >&2
    cat "$workdir/zepgw.log" >&2
    exit 1
}
trap cleanup EXIT
trap 'echo "run-demo: interrupted" >&2; exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

: >"$workdir/port"
"$zepgw" --port 0 -v >"$workdir/port" 2>"$workdir/zepgw.log" &
gwpid=$!

# zepgw prints the port it chose as its first line; read succeeds only once that line is complete.
port=
deadline=$((SECONDS + port_wait))
until IFS= read -r port <"$workdir/port" && [ -n "$port" ]; do
    kill -0 "$gwpid" 2>/dev/null || fail "zepgw ended before it reported its port"
    [ "$SECONDS" -lt "$deadline" ] || fail "zepgw did not report its port within $port_wait seconds"
    sleep 0.05
done
case "$port" in
    *[!0-9]*) fail "zepgw reported \"$port\" instead of a port" ;;
esac

echo "zepgw listens on port $port (pid $gwpid)"
echo
# The demo runs in the background so that a signal reaches the traps at once; timeout bounds its run.
timeout "$demo_limit" "$demo" "$port" &
demopid=$!
wait "$demopid"
status=$?
demopid=
case "$status" in
    0) exit 0 ;;
    124) fail "the demo did not finish within $demo_limit seconds" ;;
    *) fail "the demo failed with status $status" ;;
esac
