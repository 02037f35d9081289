#!/usr/bin/env bash
# install_test.sh SOURCE_DIR BUILD_DIR CONSUMER_SOURCE [EMULATOR...]
# Installs the build into a temporary prefix and builds a client against it,
# once through the CMake package and once through pkg-config; then does the
# same for a /usr-like prefix (Debian's GNUInstallDirs give /usr a multiarch
# libdir, two levels deep) staged under DESTDIR.
# EMULATOR runs the clients when the build is for another processor (the
# compilers then come from CMAKE_TOOLCHAIN_FILE and CC).
set -u
source=$1
build=$2
consumer=$3
emulator=("${@:4}")
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0
check() { # description, expected, actual
    if [ "$2" != "$3" ]; then
        echo "FAIL: $1"
        echo "  expected: $2"
        echo "  actual:   $3"
        failures=$((failures + 1))
    fi
}
cached() { sed -n "s/^$1:[A-Z]*=//p" "$2/CMakeCache.txt"; }
export VEXA_BOARD="$dir/board"
export PKG_CONFIG_ALLOW_SYSTEM_CFLAGS=1 PKG_CONFIG_ALLOW_SYSTEM_LIBS=1
unset PKG_CONFIG_SYSROOT_DIR

# The clients of one installed tree: $1 the prefix the package files name,
# $2 where that prefix lies now (the staged tree), $3 its libdir.
clients() {
    local prefix=$1 staged=$2 libdir=$3 label=$4 out
    rm -rf "$dir/build" "$dir/pc-client"
    cmake -S "$consumer" -B "$dir/build" -DCMAKE_PREFIX_PATH="$staged" \
        ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"} >/dev/null || { check "$label: CMake finds the package" 0 1; return; }
    cmake --build "$dir/build" >/dev/null || { check "$label: the CMake client builds" 0 1; return; }
    out=$(LD_LIBRARY_PATH="$staged/$libdir" "${emulator[@]}" "$dir/build/consumer" 2>/dev/null | tail -n1)
    check "$label: the CMake client runs" "QR5PLUS 0" "$out"

    export PKG_CONFIG_PATH="$staged/$libdir/pkgconfig"
    check "$label: vexasdk.pc names the includedir" "$prefix/include" "$(pkg-config --variable=includedir vexasdk)"
    check "$label: vexasdk.pc names the libdir" "$prefix/$libdir" "$(pkg-config --variable=libdir vexasdk)"
    # The sysroot puts the staged tree before the paths the file names.
    [ "$prefix" = "$staged" ] || export PKG_CONFIG_SYSROOT_DIR="${staged%"$prefix"}"
    # shellcheck disable=SC2046
    "${CC:-cc}" -o "$dir/pc-client" "$consumer/main.c" $(pkg-config --cflags --libs vexasdk) ||
        { check "$label: the pkg-config client builds" 0 1; unset PKG_CONFIG_SYSROOT_DIR; return; }
    unset PKG_CONFIG_SYSROOT_DIR
    out=$(LD_LIBRARY_PATH="$staged/$libdir" "${emulator[@]}" "$dir/pc-client" 2>/dev/null | tail -n1)
    check "$label: the pkg-config client runs" "QR5PLUS 0" "$out"
}

toolchain=$(cached CMAKE_TOOLCHAIN_FILE "$build")
cmake --install "$build" --prefix "$dir/prefix" >/dev/null || { echo "install failed"; exit 1; }
libdir=$(cached CMAKE_INSTALL_LIBDIR "$build")
clients "$dir/prefix" "$dir/prefix" "$libdir" "prefix $dir/prefix"
check "the man page is installed" yes "$([ -s "$dir/prefix/share/man/man1/vexactl.1" ] && echo yes)"
check "the bash completion is installed" yes \
    "$([ -s "$dir/prefix/share/bash-completion/completions/vexactl" ] && echo yes)"

# /usr: the package files of a tree configured for it, with the libraries
# and the board's host program of this build where that tree puts them.
cmake -S "$source" -B "$dir/usr-build" -G "$(cached CMAKE_GENERATOR "$build")" -DCMAKE_INSTALL_PREFIX=/usr \
    ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"} -DVEXA_BUILD_TESTS=OFF -DVEXA_BUILD_TOOLS=OFF \
    -DVEXA_BUILD_BENCH=OFF >/dev/null || { echo "configuring for /usr failed"; exit 1; }
usr_libdir=$(cached CMAKE_INSTALL_LIBDIR "$dir/usr-build")
DESTDIR="$dir/stage" cmake --install "$dir/usr-build" --component dev >/dev/null || { echo "staging failed"; exit 1; }
cp -a "$dir/prefix/$libdir"/lib*.so* "$dir/stage/usr/$usr_libdir/"
mkdir -p "$dir/stage/usr/libexec" && cp -a "$dir/prefix/libexec/vexaboard-host" "$dir/stage/usr/libexec/"
check "the /usr tree names the CMake package's place" yes \
    "$([ -f "$dir/stage/usr/$usr_libdir/cmake/vexasdk/vexasdkConfig.cmake" ] && echo yes)"
clients /usr "$dir/stage/usr" "$usr_libdir" "prefix /usr ($usr_libdir)"

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed"
    exit 1
fi
echo "the installed library works through the CMake package and pkg-config, in a prefix and in /usr"
