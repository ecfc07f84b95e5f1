#!/usr/bin/env bash
# On a host with cgroup v2 only, scripts/demo and the sandbox say so in one line instead of
# failing somewhere later; the sandbox runs nothing, except in the test launcher's mode, where
# the command runs outside it and learns why; scripts/test says where the suites will run. Here
# the v2 hierarchy offers no cpuset either (this host binds it to v1), so the v2 layout is
# refused too and the demo says both. Such a host is made here in a private mount
# namespace: the cgroup v1 hierarchies are unmounted there (the host keeps them) and cgroup v2
# mounted on /sys/fs/cgroup.
#
#   cgroup_v2_test.sh SOURCE_DIR        (exit 77: no root or namespaces to build that host)
set -uo pipefail
src=$1
if [ "$(id -u)" != 0 ] || ! unshare -m true 2>/dev/null; then
    echo "needs root and mount namespaces"
    exit 77
fi
unshare -m --propagation private bash -s "$src" <<'IN'
set -uo pipefail
src=$1
fail() { echo "FAILED: $*" >&2; exit 1; }
umount -R /sys/fs/cgroup 2>/dev/null || umount -l /sys/fs/cgroup || fail "cannot unmount /sys/fs/cgroup"
mount -t cgroup2 none /sys/fs/cgroup || fail "cannot mount cgroup2"
want="this host has cgroup v2 only (unified hierarchy on /sys/fs/cgroup); the linux-v1 layout needs cgroup v1 hierarchies: use --layout v2 (README: cgroup layouts)"
want_v2="the cgroup v2 hierarchy at /sys/fs/cgroup has no cpuset controller (README: Prerequisites)"

out=$("$src/tools/rt_sandbox" --check)
[ $? = 1 ] || fail "rt_sandbox --check did not refuse"
[ "$out" = "$want" ] || fail "rt_sandbox --check said: $out"

out=$("$src/tools/rt_sandbox" bash -c 'echo ran' 2>&1)
rc=$?
[ $rc = 125 ] || fail "rt_sandbox ran its command outside the sandbox (exit $rc)"
[ "$out" = "rt_sandbox: cannot run bash in the sandbox: $want" ] || fail "rt_sandbox refused with: $out"

out=$("$src/tools/rt_sandbox" --skip-unavailable bash -c 'echo "$QXRT_SANDBOX_UNAVAILABLE"')
[ "$out" = "$want" ] || fail "the tests would skip with: $out"

out=$("$src/scripts/demo" 2>&1)
rc=$?
[ $rc = 1 ] || fail "scripts/demo exited with $rc"
[ "$out" = "scripts/demo: cannot run on this host: $want; and --layout v2: $want_v2" ] ||
    fail "scripts/demo said: $out"

out=$("$src/scripts/test" --plan 2>/dev/null)
[ "$out" = "here: every suite; the ones that need a sandbox this host can't give skip ($want)
VM guest: scripts/vm --layout device suites
VM guest: scripts/vm --layout v2 layouts" ] || fail "scripts/test --plan said: $out"
echo "v2-only host reported in one line: ok"
IN
