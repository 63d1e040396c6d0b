#!/bin/sh
# Runs examples/demo.c against a zepgw of the same build: run-demo.sh <build dir>.
# Builds nothing (make demo builds first). However it ends, by an error or a signal, zepgw and the demo are
# stopped by their pids and the temporary folder goes; when the demo fails, zepgw's log is shown.
set -u

build=${1:?usage: run-demo.sh <build dir>}
zepgw="$build/zepgw"
demo="$build/demo"
demo_limit=60     # seconds the demo may run
for program in "$zepgw" "$demo"; do
    if [ ! -x "$program" ]; then
        echo "run-demo: $program is missing; run make demo" >&2
        exit 2
    fi
done

. "$(dirname "$0")/zepgw-start.sh"
start_zepgw "$zepgw" zepdemo run-demo -v || exit 1

echo "zepgw listens on port $port (pid $gwpid)"
echo
# The demo runs in the background so that a signal reaches the traps at once; timeout bounds its run.
timeout "$demo_limit" "$demo" "$port" &
pids_to_stop=$!
wait "$pids_to_stop"
status=$?
pids_to_stop=
[ "$status" -eq 0 ] && exit 0
if [ "$status" -eq 124 ]; then
    echo "run-demo: the demo did not finish within $demo_limit seconds" >&2
else
    echo "run-demo: the demo failed with status $status" >&2
fi
echo "---- zepgw's log ----" >&2
cat "$workdir/zepgw.log" >&2
exit 1
