# Sourced by the scripts that run zepgw. start_zepgw <zepgw> <prefix> <name> [zepgw option...] makes a
# temporary directory ($workdir, from <prefix>), starts zepgw on a free loopback port with its output there,
# and sets gwpid and port. However the script ends (an error, exit, or INT, TERM or HUP), the processes listed
# in $pids_to_stop and zepgw are stopped by their pids and the directory is removed. When zepgw does not report
# its port within 10 seconds it prints "<name>: zepgw did not report its port" and zepgw's log, and fails.
pids_to_stop=
cleanup() {
    trap - EXIT INT TERM HUP
    for pid in ${pids_to_stop:-} ${gwpid:-}; do
        kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
    done
    [ -z "${workdir:-}" ] || rm -rf "$workdir"
}

start_zepgw() {
    trap cleanup EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    trap 'exit 129' HUP
    zepgw_program=$1 name=$3
    workdir=$(mktemp -d "${TMPDIR:-/tmp}/$2.XXXXXX") || return 1
    shift 3
    # The port file exists before zepgw starts, and read succeeds only on a complete first line.
    : >"$workdir/port"
    "$zepgw_program" --port 0 "$@" >"$workdir/port" 2>"$workdir/zepgw.log" &
    gwpid=$!
    port= tries=0
    until IFS= read -r port <"$workdir/port" && [ -n "$port" ]; do
        tries=$((tries + 1))
        if [ $tries -gt 200 ] || ! kill -0 "$gwpid" 2>/dev/null; then
            port=
            break
        fi
        sleep 0.05
    done
    case "$port" in
        ''|*[!0-9]*)
            echo "$name: zepgw did not report its port" >&2
            cat "$workdir/zepgw.log" >&2
            return 1 ;;
    esac
}
