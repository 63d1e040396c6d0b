#!/bin/sh
# Runs examples/demo.c against a zepgw of the same build: run-demo.sh <build dir>.
# Builds nothing (make demo builds first). zepgw is stopped by its pid however the demo ends.
set -u

build=${1:?usage: run-demo.sh <build dir>}
zepgw="$build/zepgw"
demo="$build/demo"
for program in "$zepgw" "$demo"; do
    if [ ! -x "$program" ]; then
        echo "run-demo: $program is missing; run make first" >&2
        exit 2
    fi
done

workdir=$(mktemp -d "${TMPDIR:-/tmp}/zepdemo.XXXXXX") || exit 2
gwpid=
cleanup() {
    if [ -n "$gwpid" ]; then
        kill "$gwpid" 2>/dev/null
        wait "$gwpid" 2>/dev/null
    fi
    rm -rf "$workdir"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

"$zepgw" --port 0 >"$workdir/port" 2>"$workdir/zepgw.log" &
gwpid=$!

# zepgw prints the port it chose as its first line; give up after 10 seconds.
port=
tries=0
while [ -z "$port" ] && [ $tries -lt 100 ]; do
    if ! kill -0 "$gwpid" 2>/dev/null; then break; fi
    # A complete first line only.
    [ "$(wc -l <"$workdir/port")" -ge 1 ] && port=$(head -n 1 "$workdir/port")
    [ -n "$port" ] || { sleep 0.1; tries=$((tries + 1)); }
done
case "$port" in
    ''|*[!0-9]*)
        echo "run-demo: zepgw did not report its port" >&2
        cat "$workdir/zepgw.log" >&2
        exit 1 ;;
esac

echo "zepgw listens on port $port (pid $gwpid)"
echo
"$demo" "$port"
status=$?
exit $status
