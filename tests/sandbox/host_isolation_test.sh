#!/usr/bin/env bash
# The sandbox cannot reach the host. Run on the host, outside any sandbox:
#   - a host process's id used inside (rtctl add) names nothing there: the host process keeps its
#     scheduling and its cgroups, and lives on after the run;
#   - files and properties made inside are not on the host, nor is /dev/cpuset or /dev/cpuacct;
#   - the run's cgroups are gone afterwards, and a process put into them from outside is moved
#     back to the root group at the end, not killed;
#   - without root the sandbox refuses in one line (exit 125) and runs nothing; --skip-unavailable
#     runs the command outside with the reason; --help and --check answer.
#
#   host_isolation_test.sh SOURCE_DIR RTCTL     (exit 77: this host can't have the sandbox)
# shellcheck disable=SC2016 # the sandboxed shells expand their own variables
set -uo pipefail
src=$1
rtctl=$2
sandbox="$src/tools/rt_sandbox"
fail() { echo "FAILED: $*" >&2; exit 1; }
if ! why=$("$sandbox" --check); then
    echo "needs the sandbox: $why"
    exit 77
fi
[ -n "${QXRT_SANDBOX:-}" ] && fail "run this on the host, not inside a sandbox"

# A host process of our own, with what the host says of it.
sleep 600 &
host=$!
trap 'kill $host 2>/dev/null' EXIT
policy_before=$(chrt -p "$host")
groups_before=$(cat "/proc/$host/cgroup")
marker="qxrt_marker_$$"
had_cpuset=$([ -e /dev/cpuset ] && echo yes)
had_cpuacct=$([ -e /dev/cpuacct ] && echo yes)

out=$("$sandbox" --config "$src/config" bash -c '
    rtctl=$1 host=$2 marker=$3
    for d in /dev/shm/realtime /data/vendor/realtime /vendor/etc/realtime /dev/qxrt_properties; do
        echo x > "$d/$marker" || echo "cannot write $d"
    done
    echo "run=$QXRT_SANDBOX"
    echo "host_visible=$([ -e "/proc/$host" ] && echo yes || echo no)"
    "$rtctl" init >/dev/null 2>&1 && "$rtctl" create Domain_Audio >/dev/null 2>&1 || echo "no domain"
    "$rtctl" add Domain_Audio Class_Render "$host" >/dev/null 2>&1
    echo "add=$?"
    # Whatever the id named in here (nothing, unless a sandbox process happens to have it): the
    # domain has no task from outside.
    echo "tasks=$(tr "\n" " " < /dev/cpuset/Domain_Audio/tasks)"
' _ "$rtctl" "$host" "$marker" 2>&1)
rc=$?
[ $rc = 0 ] || fail "the sandbox run exited with $rc: $out"
run=$(sed -n 's/^run=//p' <<<"$out")
[ -n "$run" ] || fail "no run name: $out"
grep -q '^no domain' <<<"$out" && fail "the domain was not created: $out"
if [ "$host" -gt 1000 ]; then
    # No sandbox process has so high an id: the host's id names nothing inside.
    grep -qx 'host_visible=no' <<<"$out" || fail "host process $host is visible inside: $out"
    grep -qx 'add=0' <<<"$out" && fail "the host's id was admitted inside: $out"
fi

# The host process: same scheduling, same groups, alive.
kill -0 "$host" 2>/dev/null || fail "the host process did not survive the run"
[ "$(chrt -p "$host")" = "$policy_before" ] || fail "host process scheduling changed: $(chrt -p "$host")"
[ "$(cat "/proc/$host/cgroup")" = "$groups_before" ] || fail "host process moved: $(cat "/proc/$host/cgroup")"

# Nothing of the run is left on the host.
for d in /dev/shm/realtime /data/vendor/realtime /vendor/etc/realtime /dev/qxrt_properties; do
    [ -e "$d/$marker" ] && fail "$d/$marker is on the host"
done
[ -e /dev/cpuset ] && [ -z "$had_cpuset" ] && fail "/dev/cpuset was left on the host"
[ -e /dev/cpuacct ] && [ -z "$had_cpuacct" ] && fail "/dev/cpuacct was left on the host"
cs=$(awk '$3 == "cgroup" && $4 ~ /(^|,)cpuset(,|$)/ { print $2; exit }' /proc/mounts)
[ -e "$cs/$run" ] && fail "the run's cgroup $cs/$run is left"

# A host process put into a run's group from outside is moved back at the end, not killed.
log=$(mktemp)
"$sandbox" sh -c 'echo "run=$QXRT_SANDBOX"; sleep 2' >"$log" 2>&1 &
launcher=$!
for _ in $(seq 100); do grep -q '^run=' "$log" && break; sleep 0.1; done
r=$(sed -n 's/^run=//p' "$log")
[ -n "$r" ] || fail "the second run did not start: $(cat "$log")"
echo "$host" > "$cs/$r/tasks" || fail "cannot put the host process into $cs/$r"
wait $launcher
out=$(cat "$log")
rm -f "$log"
kill -0 "$host" 2>/dev/null || fail "the teardown killed a host process put into its group"
grep -q "task $host was put into $cs/$r from outside the sandbox; moved back to $cs" <<<"$out" ||
    fail "no line for the host process in the group: $out"
[ "$(grep -E '^[0-9]+:([^:]*,)?cpuset(,[^:]*)?:' "/proc/$host/cgroup" | cut -d: -f3)" = "/" ] ||
    fail "host process not back in the root cpuset: $(cat "/proc/$host/cgroup")"
[ -e "$cs/$r" ] && fail "the second run's cgroup $cs/$r is left"

# Options and refusals.
"$sandbox" --help | grep -q '^usage: rt_sandbox' || fail "--help"
out=$("$sandbox" --no-such-option true 2>&1)
rc=$?
[ $rc = 2 ] || fail "unknown option: exit $rc"
[ "$out" = "rt_sandbox: unknown option --no-such-option (try 'rt_sandbox --help')" ] ||
    fail "unknown option: $out"
"$sandbox" --check || fail "--check refused on this host"
nobody=(setpriv --reuid=65534 --regid=65534 --clear-groups)
if ! "${nobody[@]}" test -x "$sandbox" 2>/dev/null; then
    echo "note: not tried without root: user nobody cannot run $sandbox here"
else
    flag=$(mktemp -u /tmp/qxrt_ran_XXXXXX)
    out=$("${nobody[@]}" "$sandbox" touch "$flag" 2>&1)
    rc=$?
    [ $rc = 125 ] || fail "without root: exit $rc ($out)"
    [ "$out" = "rt_sandbox: cannot run touch in the sandbox: the sandbox needs root" ] ||
        fail "without root: $out"
    [ -e "$flag" ] && { rm -f "$flag"; fail "without root the command ran anyway"; }
    out=$("${nobody[@]}" "$sandbox" --skip-unavailable sh -c 'echo "$QXRT_SANDBOX_UNAVAILABLE"')
    [ "$out" = "the sandbox needs root" ] || fail "--skip-unavailable without root: $out"
    out=$("${nobody[@]}" "$sandbox" --check)
    rc=$?
    [ $rc = 1 ] || fail "--check without root: exit $rc"
    [ "$out" = "the sandbox needs root" ] || fail "--check without root: $out"
fi
echo "the sandbox does not reach the host: ok"
