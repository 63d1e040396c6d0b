#!/usr/bin/env bash
# Makes sure the build tools are here: g++ with 32-bit multilib support, cmake, and the GoogleTest sources
# (built from source for each flavour); with --coverage also gcovr. As root it installs what is missing;
# otherwise it prints the command.
set -euo pipefail

missing=()
command -v cmake >/dev/null 2>&1 || missing+=(cmake)
command -v g++ >/dev/null 2>&1 || missing+=(g++)
command -v make >/dev/null 2>&1 || missing+=(make)
[ -f /usr/src/googletest/CMakeLists.txt ] || missing+=(googletest)
if [ "${1:-}" = --coverage ]; then
  command -v gcovr >/dev/null 2>&1 || missing+=(gcovr)
fi
probe_dir=$(mktemp -d)
trap 'rm -rf "$probe_dir"' EXIT
echo 'int main(void) { return 0; }' > "$probe_dir/probe.c"
if ! gcc -m32 "$probe_dir/probe.c" -o "$probe_dir/probe" >/dev/null 2>&1 ||
   ! g++ -m32 -x c++ "$probe_dir/probe.c" -o "$probe_dir/probe" >/dev/null 2>&1; then
  missing+=(g++-multilib)
fi

[ ${#missing[@]} -eq 0 ] && exit 0

command_line="apt-get update && apt-get install -y ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  echo "zepclient needs: ${missing[*]}. Install them as root with:" >&2
  echo "  $command_line" >&2
  exit 1
fi
echo "zepclient: installing missing build dependencies: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq "${missing[@]}"
