# Sourced by the scripts that run zepgw. start_zepgw <zepgw> <prefix> <name> makes a
# temporary directory ($workdir, from <prefix>) and starts zepgw on a free loopback port with
# its output there; it sets gwpid and port. When the script exits, however it ends, zepgw is
# stopped by its pid and the directory removed. When zepgw does not report its port within
# 10 seconds it prints "<name>: zepgw did not report its port" and zepgw's log, and fails.
cleanup() {
    if [ -n "${gwpid:-}" ]; then
        kill "$gwpid" 2>/dev/null
        wait "$gwpid" 2>/dev/null
    fi
    [ -z "${workdir:-}" ] || rm -rf "$workdir"
}

start_zepgw() {
    trap cleanup EXIT
    trap 'exit 130' INT TERM
    workdir=$(mktemp -d "${TMPDIR:-/tmp}/$2.XXXXXX") || return 1
    "$1" --port 0 >"$workdir/port" 2>"$workdir/zepgw.log" &
    gwpid=$!
    port= tries=0
    while [ -z "$port" ] && [ $tries -lt 100 ] && kill -0 "$gwpid" 2>/dev/null; do
        # A complete first line only.
        [ "$(wc -l <"$workdir/port")" -ge 1 ] && port=$(head -n 1 "$workdir/port")
        [ -n "$port" ] || { sleep 0.1; tries=$((tries + 1)); }
    done
    case "$port" in
        ''|*[!0-9]*)
            echo "$3: zepgw did not report its port" >&2
            cat "$workdir/zepgw.log" >&2
            return 1 ;;
    esac
}
