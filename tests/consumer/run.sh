#!/usr/bin/env bash
# Builds the consumer host against the SDK installed under PREFIX, once through the CMake package
# and once through pkg-config, and runs both; first checks that the installation holds the device
# list and no path of the machine that built it.
#   tests/consumer/run.sh PREFIX        (CXX picks the compiler, as for CMake)
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 PREFIX" >&2; exit 2; }
prefix=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
source_root=$(cd "$here/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() { echo "consumer check: $*" >&2; exit 1; }

pc_file=$(find "$prefix" -path '*/pkgconfig/rovalis.pc' | head -n 1)
[ -n "$pc_file" ] || fail "no rovalis.pc under $prefix"
libdir=$(dirname "$(dirname "$pc_file")")
[ -f "$prefix/share/rovalis/DeviceList.json" ] || fail "no share/rovalis/DeviceList.json under $prefix"
if leaks=$(grep -rlF "$source_root" "$prefix"); then
  fail "these installed files name the source tree $source_root: $leaks"
fi
shared=false
[ -e "$libdir/librovalis.so" ] && shared=true

# The shared library must be the installed one, not a copy in the build tree.
check_links_installed() {
  if $shared; then
    local loaded
    loaded=$(ldd "$1")
    grep -qF "$libdir/librovalis.so" <<<"$loaded" || fail "$1 does not load $libdir/librovalis.so"
  fi
}

echo "== find_package(RovalisSDK 0.2 CONFIG) against $prefix"
cmake -S "$here" -B "$work/cmake" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" >"$work/log" ||
  { cat "$work/log"; fail "the consumer project does not configure"; }
cmake --build "$work/cmake" >"$work/log" || { cat "$work/log"; fail "the consumer project does not build"; }
check_links_installed "$work/cmake/rovalis_consumer"
"$work/cmake/rovalis_consumer"

echo "== pkg-config --cflags --libs rovalis against $prefix"
pkg_config_args=(--cflags --libs)
$shared || pkg_config_args+=(--static)
flags=$(PKG_CONFIG_PATH="$(dirname "$pc_file")" pkg-config "${pkg_config_args[@]}" rovalis)
# shellcheck disable=SC2086  # the flags are words
${CXX:-c++} -std=c++20 -O1 "$here/main.cpp" -o "$work/consumer" $flags -Wl,-rpath,"$libdir"
check_links_installed "$work/consumer"
"$work/consumer"
