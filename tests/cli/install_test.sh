#!/usr/bin/env bash
# What a new user does with a fresh build: install it into a prefix, build the minimal client
# against it with pkg-config (the README's command, exactly) and with find_package, and run the
# client in the sandbox on the shipped configuration.
#
#   install_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
src=$2
work=$(mktemp -d /tmp/qxrt_install.XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null || fail "cmake --install"
version=$(sed -n 's/^#define QX_REALTIME_VERSION "\(.*\)"$/\1/p' "$src/include/qx_realtime.h")
[ -n "$version" ] || fail "no QX_REALTIME_VERSION in the header"

libdir=$(dirname "$(find "$prefix" -name libqxt_realtime_hal.so | head -1)")
for f in include/qx_realtime.h bin/rtctl share/man/man1/rtctl.1 share/bash-completion/completions/rtctl; do
    [ -f "$prefix/$f" ] || fail "$f is not installed"
done
[ -f "$libdir/pkgconfig/qxt_realtime_hal.pc" ] || fail "no pkg-config file next to the library"
[ -f "$libdir/cmake/qxt_realtime_hal/qxt_realtime_halConfig.cmake" ] || fail "no CMake package"
soname=$(readelf -d "$libdir/libqxt_realtime_hal.so" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[ "$soname" = libqxt_realtime_hal.so ] || fail "SONAME is '$soname'"

# One version everywhere.
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion qxt_realtime_hal)" = "$version" ] || fail "pkg-config version"
[ "$("$prefix/bin/rtctl" --version)" = "rtctl (libqxt_realtime_hal) $version" ] ||
    fail "rtctl --version: $("$prefix/bin/rtctl" --version)"
grep -q "libqxt_realtime_hal $version" "$prefix/share/man/man1/rtctl.1" || fail "man page version"
"$prefix/bin/rtctl" --man | cmp -s - "$prefix/share/man/man1/rtctl.1" ||
    fail "the installed man page is not what rtctl --man prints"

# The README shows the client whole, and the command below.
python3 - "$src/README.md" "$src/examples/minimal_client.c" <<'PY' || fail "README does not show examples/minimal_client.c whole"
import sys
readme, client = open(sys.argv[1]).read(), open(sys.argv[2]).read()
sys.exit(0 if client.strip() in readme else 1)
PY
# The command exactly as the README prints it, expansions unexpanded: eval runs it below.
# shellcheck disable=SC2016
readme_cc='cc minimal_client.c $(pkg-config --cflags --libs qxt_realtime_hal) -Wl,-rpath,$(pkg-config --variable=libdir qxt_realtime_hal) -o minimal_client'
grep -qF "$readme_cc" "$src/README.md" || fail "README does not show the pkg-config build command"
cp "$src/examples/minimal_client.c" "$work/"
(cd "$work" && eval "$readme_cc -Wall -Wextra -Werror") || fail "the minimal client does not build with pkg-config"

# The same client through find_package.
mkdir -p "$work/pkg"
cat > "$work/pkg/CMakeLists.txt" <<'CM'
cmake_minimum_required(VERSION 3.16)
project(minimal_client C)
find_package(qxt_realtime_hal 1.0 REQUIRED)
add_executable(minimal_client_cmake ../minimal_client.c)
target_link_libraries(minimal_client_cmake PRIVATE qxt_realtime_hal::qxt_realtime_hal)
file(WRITE ${CMAKE_BINARY_DIR}/found_version "${qxt_realtime_hal_VERSION}")
CM
cmake -S "$work/pkg" -B "$work/pkg/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null ||
    fail "find_package(qxt_realtime_hal)"
cmake --build "$work/pkg/build" >/dev/null || fail "the minimal client does not build with find_package"
[ "$(cat "$work/pkg/build/found_version")" = "$version" ] || fail "CMake package version"

# Both clients run: admitted, budget asked, removed. The installed rtctl initialises nothing
# here; the client does it all itself.
run_client() {
    # shellcheck disable=SC2016 # the inner shell expands them, from its own arguments
    "$src/tools/rt_sandbox" --skip-unavailable --config "$src/config" bash -c '
        [ -z "${QXRT_SANDBOX_UNAVAILABLE:-}" ] || { echo "sandbox: $QXRT_SANDBOX_UNAVAILABLE"; exit 77; }
        "$1" && "$2" list' _ "$1" "$prefix/bin/rtctl"
}
for client in "$work/minimal_client" "$work/pkg/build/minimal_client_cmake"; do
    set +e
    out=$(run_client "$client" 2>&1)
    rc=$?
    set -e
    [ "$rc" = 77 ] && { echo "$out"; exit 77; }
    printf '%s\n' "$out"
    [ "$rc" = 0 ] || fail "$client exited with $rc"
    grep -Eq '^thread [0-9]+ runs in Domain_Audio; 312 units of its budget are left$' <<<"$out" ||
        fail "$client did not report its admission"
    grep -qx Domain_Audio <<<"$out" || fail "the installed rtctl does not list the client's domain"
done
echo "install, pkg-config, find_package and the minimal client: ok"
