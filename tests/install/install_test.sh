#!/usr/bin/env bash
# install_test.sh BUILD_DIR CONSUMER_SOURCE [EMULATOR...]
# EMULATOR runs the clients when the build is for another processor (the
# compilers then come from CMAKE_TOOLCHAIN_FILE and CC).
set -eu
build=$1
consumer=$2
emulator=("${@:3}")
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cmake --install "$build" --prefix "$dir/prefix" >/dev/null
export VEXA_BOARD="$dir/board"
libdir=$(ls -d "$dir"/prefix/lib*/ | head -n1)
export LD_LIBRARY_PATH="$libdir"

cmake -S "$consumer" -B "$dir/build" -DCMAKE_PREFIX_PATH="$dir/prefix" >/dev/null
cmake --build "$dir/build" >/dev/null
out=$("${emulator[@]}" "$dir/build/consumer" 2>/dev/null | tail -n1)
[ "$out" = "QR5PLUS 0" ] || { echo "CMake client printed '$out'"; exit 1; }

PKG_CONFIG_PATH=$(dirname "$(find "$dir/prefix" -name vexasdk.pc)")
export PKG_CONFIG_PATH
"${CC:-cc}" -o "$dir/pc-client" "$consumer/main.c" $(pkg-config --cflags --libs vexasdk)
out=$("${emulator[@]}" "$dir/pc-client" 2>/dev/null | tail -n1)
[ "$out" = "QR5PLUS 0" ] || { echo "pkg-config client printed '$out'"; exit 1; }
echo "installed library works through the CMake package and pkg-config"
