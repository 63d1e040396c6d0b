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

. "$(dirname "$0")/zepgw-start.sh"
start_zepgw "$zepgw" zepdemo run-demo || exit 1

echo "zepgw listens on port $port (pid $gwpid)"
echo
"$demo" "$port"
status=$?
exit $status
