#!/usr/bin/env bash
# Installs the build into a temporary prefix, checks what landed there, runs the installed
# tools, and builds and runs a C host against the installed tree twice: through pkg-config
# and through find_package(xajms), as strict ISO C11 with nothing but what those give, and once
# more asking for POSIX, which shows the pool lock. Exit 77 (skipped) while the library has no
# OrloStart.
# Usage: install_test.sh BUILD_DIR THIS_DIR [SANITIZERS]
set -euo pipefail
build=$1
here=$2
cflags="-std=c11 -Wall -Wextra -Werror"
if [ -n "${3:-}" ]; then
    cflags="$cflags -fsanitize=$3"
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() {
    echo "install test: $*" >&2
    exit 1
}

cmake --install "$build" --prefix "$prefix" >"$work/install.log"
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name xajms.pc -print -quit)")
libdir=$(pkg-config --variable=libdir xajms)
[ -n "$PKG_CONFIG_PATH" ] && [ -d "$libdir" ] || fail "no usable xajms.pc"

# The library with its SONAME and version links, the headers, the tools, the package.
[ "$(readlink "$libdir/libxajms.so")" = libxajms.so.1 ] || fail "libxajms.so is no link to .so.1"
[ -f "$libdir/libxajms.so.1" ] || fail "libxajms.so.1 missing"
# grep reads all its input (no -q): with pipefail an early exit would fail the writer.
readelf -d "$libdir/libxajms.so.1" | grep 'SONAME.*\[libxajms\.so\.1\]' >/dev/null ||
    fail "bad SONAME"
for f in include/xajms/xa.h include/xajms/xajms.h bin/xajms-drive bin/xajms-registry \
    bin/xajms-listener bin/xajms-sandbox bin/xajms-trace; do
    [ -e "$prefix/$f" ] || fail "$f not installed"
done
# The execution group, when this build has it (libpq installed).
if [ -e "$build/eg/libPellux.so" ]; then
    [ -f "$libdir/libPellux.so" ] && [ -f "$prefix/include/xajms/eg.h" ] ||
        fail "the execution group's library or header not installed"
fi
find "$prefix" -name xajmsConfigVersion.cmake | grep . >/dev/null || fail "no package version file"

if ! nm -D --defined-only "$libdir/libxajms.so.1" | grep -w OrloStart >/dev/null; then
    echo "the library has no OrloStart yet"
    exit 77
fi

# The installed tools find the installed library by themselves.
"$prefix/bin/xajms-registry" --help >/dev/null || fail "installed xajms-registry does not run"
# The sandbox puts the installed tools first on PATH (where a sandbox can be made at all).
if "$prefix/bin/xajms-sandbox" true 2>/dev/null; then
    [ "$("$prefix/bin/xajms-sandbox" sh -c 'command -v xajms-drive')" = "$prefix/bin/xajms-drive" ] ||
        fail "installed xajms-sandbox does not put the installed tools on PATH"
fi
"$prefix/bin/xajms-drive" --expect complete=XAER_RMFAIL open complete close >"$work/drive.out" ||
    fail "installed xajms-drive cannot drive the installed library: $(cat "$work/drive.out")"

for posix in "" -D_POSIX_C_SOURCE=200809L; do
    # shellcheck disable=SC2046,SC2086
    cc $cflags $posix "$here/host.c" -o "$work/host_pc" $(pkg-config --cflags --libs xajms) \
        -Wl,-rpath,"$libdir" || fail "host ${posix:+($posix) }does not build through pkg-config"
    [ "$("$work/host_pc")" = "switch KEL_VARNELINK" ] || fail "pkg-config host run failed"
done

# The host's target asks for C11 without extensions itself; only warnings are added here.
cmake -S "$here" -B "$work/host" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_FLAGS="${cflags#-std=c11 }" >"$work/configure.log" || fail "find_package(xajms) failed"
cmake --build "$work/host" >"$work/build.log" || fail "host does not build through find_package"
[ "$("$work/host/host")" = "switch KEL_VARNELINK" ] || fail "find_package host run failed"

# The version file refuses a major version the installed library does not have.
if cmake -S "$here" -B "$work/host2" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DXAJMS_WANT=2.0 \
    >/dev/null 2>&1; then
    fail "find_package(xajms 2.0) accepted version 1"
fi
echo "installed, built through pkg-config and find_package, and ran"
