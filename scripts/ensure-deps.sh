#!/usr/bin/env bash
# Makes sure the tools a make target needs are here: ensure-deps.sh [demo|test|install|docs].
#   demo     g++, cmake and make: enough to build the 64-bit library, zepgw and the demo
#   test     also 32-bit multilib support and the GoogleTest sources (built for each flavour); the default
#   install  also pkg-config, which the installed files are checked with
#   docs     doxygen, for the HTML reference
#   coverage also gcovr, for make coverage
#   fuzz     also clang and its runtime (libFuzzer and the sanitizers), for make fuzz
# As root it installs what is missing and says so; otherwise it prints the command.
set -euo pipefail

need=${1:-test}
missing=()
have() { command -v "$1" >/dev/null 2>&1; }

if [ "$need" = docs ]; then
    have doxygen || missing+=(doxygen)
else
    have cmake || missing+=(cmake)
    have g++ || missing+=(g++)
    have make || missing+=(make)
fi
if [ "$need" = test ] || [ "$need" = install ] || [ "$need" = coverage ]; then
    [ -f /usr/src/googletest/CMakeLists.txt ] || missing+=(googletest)
    probe_dir=$(mktemp -d)
    trap 'rm -rf "$probe_dir"' EXIT
    echo 'int main(void) { return 0; }' > "$probe_dir/probe.c"
    if ! gcc -m32 "$probe_dir/probe.c" -o "$probe_dir/probe" >/dev/null 2>&1 ||
       ! g++ -m32 -x c++ "$probe_dir/probe.c" -o "$probe_dir/probe" >/dev/null 2>&1; then
        missing+=(g++-multilib)
    fi
fi
if [ "$need" = install ]; then
    have pkg-config || missing+=(pkg-config)
fi
if [ "$need" = fuzz ]; then
    have clang++ || missing+=(clang)
    ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1 || missing+=(libclang-rt-dev)
fi
if [ "$need" = coverage ]; then
    have gcovr || missing+=(gcovr)
fi

[ ${#missing[@]} -eq 0 ] && exit 0

command_line="apt-get update && apt-get install -y ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
    echo "zepclient needs: ${missing[*]}. Install them as root with:" >&2
    echo "  $command_line" >&2
    exit 1
fi
echo "zepclient: installing missing dependencies for make $need: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq "${missing[@]}" >/dev/null
