# Sourced by the scripts that run zepgw. start_zepgw <zepgw> <dir> <name> starts zepgw on a
# free loopback port, its output in <dir>, and sets gwpid and port; when zepgw does not
# report its port within 10 seconds it prints "<name>: zepgw did not report its port" and
# zepgw's log on standard error and fails. The caller stops zepgw by gwpid.
start_zepgw() {
    "$1" --port 0 >"$2/port" 2>"$2/zepgw.log" &
    gwpid=$!
    port= tries=0
    while [ -z "$port" ] && [ $tries -lt 100 ] && kill -0 "$gwpid" 2>/dev/null; do
        # A complete first line only.
        [ "$(wc -l <"$2/port")" -ge 1 ] && port=$(head -n 1 "$2/port")
        [ -n "$port" ] || { sleep 0.1; tries=$((tries + 1)); }
    done
    case "$port" in
        ''|*[!0-9]*)
            echo "$3: zepgw did not report its port" >&2
            cat "$2/zepgw.log" >&2
            return 1 ;;
    esac
}
