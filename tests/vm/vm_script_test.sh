#!/usr/bin/env bash
# scripts/vm on bad input and in its plain outcomes: an unknown layout, architecture or program
# set, a missing kernel or build, a host without qemu, a kernel that does not boot, a guest that
# hangs, and a guest whose programs pass and fail; the v2 layout's guest as it is set up. Each
# gives its exit status and, where it fails, exactly one line on stderr, within a bounded time.
#
#   tests/vm/vm_script_test.sh [BUILD_DIR]    (default: build/ of this checkout, built already)
#
# Exit 0 when every check holds, 1 otherwise, 77 when this host cannot boot the guest (then only
# the checks that need no guest have run).
set -uo pipefail
cd "$(dirname "$0")/../.." || exit 1
vm=$PWD/scripts/vm
build=${1:-$PWD/build}
failures=0
checks=0
out=$(mktemp) err=$(mktemp)
trap 'rm -f "$out" "$err"' EXIT

# expect NAME STATUS MAX_SECONDS STDERR_PATTERN ARGS...: runs scripts/vm ARGS; its exit status
# must be STATUS, it must end within MAX_SECONDS, and (unless STATUS is 0) stderr must be one line
# matching STDERR_PATTERN (grep -E).
expect() {
    local name=$1 want=$2 max=$3 pattern=$4 rc=0 t0 took lines
    shift 4
    checks=$((checks + 1))
    t0=$(date +%s)
    "$vm" "$@" >"$out" 2>"$err" </dev/null || rc=$?
    took=$(($(date +%s) - t0))
    lines=$(wc -l <"$err")
    if [ "$rc" != "$want" ]; then
        echo "FAIL $name: exit $rc, expected $want"
    elif [ "$took" -gt "$max" ]; then
        echo "FAIL $name: took $took s, more than $max s"
    elif [ "$want" != 0 ] && { [ "$lines" != 1 ] || ! grep -qE "$pattern" "$err"; }; then
        echo "FAIL $name: stderr is not one line matching '$pattern':"
    else
        echo "ok   $name (exit $rc, $took s)"
        return 0
    fi
    failures=$((failures + 1))
    sed 's/^/     stderr| /' "$err"
    tail -n 20 "$out" | sed 's/^/     stdout| /'
    return 1
}

# Bad input, found before anything is fetched or booted.
expect unknown-layout 2 5 "unknown layout 'v3'" --layout v3
expect unknown-arch 2 5 "unknown architecture 'riscv64'" --arch riscv64
expect unknown-set 2 5 "unknown program set 'everything'" everything
expect missing-kernel 2 5 "no kernel image at /nonexistent/vmlinuz" --kernel /nonexistent/vmlinuz
expect bad-number 2 5 "'soon' is not a positive number" --timeout soon
expect missing-build 2 60 "no build in /nonexistent/build" --no-build --build /nonexistent/build
# The v2 layout is known: the run gets as far as the build.
expect v2-layout-known 2 60 "no build in /nonexistent/build" --layout v2 --no-build --build /nonexistent/build
# A host without qemu that may not install it: skipped, with the reason.
QXRT_VM_NO_INSTALL=1 QXRT_VM_QEMU=/nonexistent/qemu-system-x86_64 \
    expect no-qemu 77 5 "skipped: .*qemu" --no-build --build "$build"

if ! "$vm" --help >/dev/null || [ ! -x "$build/tools/rtctl" ]; then
    echo "SKIPPED: no build in $build for the checks that boot a guest"
    exit 77
fi
# Whether this host can boot a guest at all: a run of nothing but `true`.
rc=0
"$vm" --no-build --build "$build" --timeout 120 --run true >"$out" 2>"$err" </dev/null || rc=$?
if [ "$rc" = 77 ]; then
    echo "SKIPPED: $(cat "$err")"
    exit 77
fi

# A guest whose programs pass and fail: the summary counts both, the exit status is 1.
expect pass-and-fail 1 150 "." --no-build --build "$build" --timeout 120 --run true --run false &&
    { grep -q '^vm: 1 passed, 1 failed, 0 skipped$' "$out" ||
        { echo "FAIL pass-and-fail: no summary line"; failures=$((failures + 1)); }; }
# Exit 77 of a program is a skip.
expect skipped-program 0 150 "." --no-build --build "$build" --timeout 120 --run 'exit 77' &&
    { grep -q '^vm: 0 passed, 0 failed, 1 skipped$' "$out" ||
        { echo "FAIL skipped-program: no summary line"; failures=$((failures + 1)); }; }
# A case that hangs is killed after --case-timeout; the run goes on and reports it.
expect hung-case 1 150 "." --no-build --build "$build" --timeout 120 --case-timeout 5 \
    --run 'sleep 600' &&
    { grep -q '^FAIL run: sleep 600 (exit 137, killed after 5 s' "$out" ||
        { echo "FAIL hung-case: the killed case is not reported"; failures=$((failures + 1)); }; }
# A guest that hangs as a whole is killed after --timeout.
expect hung-guest 3 60 "did not finish within 30 s and was killed" --no-build --build "$build" \
    --timeout 30 --case-timeout 600 --run 'sleep 600'
# The v2 layout: no v1 hierarchy (cgroup_no_v1=all), cgroup2 alone at /sys/fs/cgroup, the runner in
# the leaf of its delegated service group, the test launcher available there; the set layouts
# runs the v2 suite, through the launcher.
# shellcheck disable=SC2016 # the guest's shell expands them
v2_checks='grep -qw cgroup_no_v1=all /proc/cmdline && [ "$(awk "\$3 ~ /^cgroup/ || \$3 == \"cpuset\" { print \$2, \$3 }" /proc/mounts)" = "/sys/fs/cgroup cgroup2" ] && grep -qx 0::/system.slice/qxrt-tests.service/main /proc/self/cgroup && tools/rt_sandbox --layout v2 --check'
expect v2-guest 0 240 "." --no-build --build "$build" --timeout 200 --layout v2 \
    layouts --run "$v2_checks" &&
    { { grep -q '^== test_layouts_v2 ' "$out" && grep -q '^PASS V2Sandbox\.' "$out" &&
        grep -q '^PASS run: grep -qw cgroup_no_v1=all' "$out"; } ||
        { echo "FAIL v2-guest: no v2 suite or the guest's layout is not as set up"; failures=$((failures + 1)); }; }
# A file that is no kernel: qemu ends without a report.
expect not-a-kernel 3 60 "ended without a report" --no-build --build "$build" --timeout 60 \
    --kernel "$PWD/README.md" --run true

echo "vm_script_test: $((checks - failures)) of $checks checks passed"
[ "$failures" = 0 ]
