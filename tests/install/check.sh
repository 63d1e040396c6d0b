#!/usr/bin/env bash
# Checks an installed zepclient as its users meet it: check.sh <prefix>. Builds consumer.c with pkg-config
# (both flavours) and with CMake's find_package (64-bit), and runs each against the installed zepgw.
set -euo pipefail
prefix=$(cd "${1:?usage: check.sh <prefix>}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
gwpid=
trap '[ -z "$gwpid" ] || kill "$gwpid" 2>/dev/null; rm -rf "$work"' EXIT

for flavour in 64:x86_64-linux-gnu 32:i386-linux-gnu; do
    bits=${flavour%%:*}
    export PKG_CONFIG_PATH=$prefix/lib/${flavour#*:}/pkgconfig
    # The rpath is one of the ways to find the library at run time (README: "Finding the library").
    cc -m"$bits" "$here/consumer.c" $(pkg-config --cflags --libs zepclient) \
        -Wl,-rpath,"$(pkg-config --variable=libdir zepclient)" -o "$work/pkg-config-$bits"
done
unset PKG_CONFIG_PATH
cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >"$work/cmake.log" 2>&1 &&
    cmake --build "$work/cmake" >>"$work/cmake.log" 2>&1 || { cat "$work/cmake.log" >&2; exit 1; }

exec 3< <(exec "$prefix/bin/zepgw" --port 0 --idle-exit 60 2>"$work/zepgw.log")
gwpid=$!
read -r -t 10 port <&3 || { echo "check.sh: the installed zepgw reported no port" >&2; exit 1; }

status=0
for program in "$work/pkg-config-64" "$work/pkg-config-32" "$work/cmake/consumer"; do
    needed=$(readelf -d "$program" | grep -o 'Shared library: \[libzepclient[^]]*\]')
    output=$("$program" "$port" 2>&1) || true
    if [ "$output" = "ZEP_OK INSTALLED" ] && [ "$needed" = "Shared library: [libzepclient.so.9]" ]; then
        echo "ok: ${program#"$work"/} ($needed) said \"$output\""
    else
        echo "FAILED: ${program#"$work"/} ($needed) said \"$output\"" >&2
        status=1
    fi
done
[ "$status" -eq 0 ] || cat "$work/zepgw.log" >&2
exit "$status"
