#!/usr/bin/env bash
# Installs the build in $1 under a private prefix, then builds the consumer
# program in $2 against it twice: with find_package(TesselHwLib) and with
# pkg-config tesselhwlib. Each program must run and find its entry.
set -euo pipefail
build=$1
consumer=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
test -x "$work/prefix/bin/tessel"

cmake -S "$consumer" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer"

pcdir=$(dirname "$(find "$work/prefix" -name tesselhwlib.pc)")
# shellcheck disable=SC2046
g++ -o "$work/pkgconfig-consumer" "$consumer/consumer.cpp" $(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs tesselhwlib)
"$work/pkgconfig-consumer"
echo "package: installed, found by CMake and by pkg-config"
