#!/usr/bin/env bash
# A host with cgroup v2 only, as a new user meets it: in the v2 guest (scripts/vm --layout v2
# --run 'bash tests/vm/v2_host_plan.sh'), the sandbox's default layout refuses in one line and
# points at --layout v2, which this host can have; scripts/test says that the v2 suite runs here
# and the cgroup v1 suites in the VM guest; scripts/demo takes the v2 layout without being asked
# (it gets as far as its own build, which the guest has no compiler for: its first line is what
# is checked).
set -uo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
cd "$src" || exit 1
fail() { echo "V2 HOST FAILED: $*" >&2; exit 1; }

why=$(tools/rt_sandbox --check) && fail "the default layout was available on a v2-only host"
case "$why" in
    "this host has cgroup v2 only (unified hierarchy on /sys/fs/cgroup); the linux-v1 layout needs cgroup v1 hierarchies: use --layout v2 (README: cgroup layouts)") ;;
    *) fail "rt_sandbox --check said: $why" ;;
esac
v2=$(tools/rt_sandbox --layout v2 --check) || fail "no v2 sandbox here: $v2"

plan=$(scripts/test --plan 2>/dev/null) || fail "scripts/test --plan failed"
want="here: every suite; the ones that need a sandbox this host can't give skip ($why)
VM guest: scripts/vm --layout device suites"
[ "$plan" = "$want" ] || fail "scripts/test --plan said: $plan"

note=$(timeout 20 scripts/demo 2>&1 </dev/null | head -1)
[ "$note" = "scripts/demo: note: $why; the demo runs on cgroup v2 (--layout v2)" ] ||
    fail "scripts/demo began with: $note"
echo "v2-only host: sandbox, test plan and demo's layout as expected"
