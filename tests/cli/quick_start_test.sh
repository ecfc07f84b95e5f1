#!/usr/bin/env bash
# The README's quick start: the first section after the introduction, at most 40 lines, with its
# four steps; every rtctl command it names exists; and its admit and watch steps, run as written
# in the sandbox with the built rtctl, put the thread where it says (exit 77: no sandbox here).
#
#   quick_start_test.sh SOURCE_DIR RTCTL
set -euo pipefail
src=$1
rtctl=$2
fail() { echo "FAILED: $*" >&2; exit 1; }

readme=$src/README.md
first=$(grep -m1 '^## ' "$readme")
[ "$first" = "## Quick start" ] || fail "the first section is '$first', not the quick start"
section=$(awk '/^## Quick start/ { on = 1; next } on && /^## / { exit } on' "$readme")
lines=$(($(wc -l <<<"$section") + 1))
[ "$lines" -le 40 ] || fail "the quick start has $lines lines (at most 40)"
for step in "# 1. Install" "# 2. Configure" "# 3. Admit" "# 4. Watch"; do
    grep -q "^$step" <<<"$section" || fail "the quick start lacks '$step'"
done
code=$(awk '/^```/ { on = !on; next } on' <<<"$section")
grep -Eo '(^|; )rtctl [a-z-]+' <<<"$code" | sed 's/^; //' | sort -u | while read -r _ command; do
    "$rtctl" "$command" --help >/dev/null || fail "rtctl $command does not exist"
done

# Steps 3 and 4 as written, with the built rtctl; top for one refresh (it is not a terminal), and
# the shell's exit left to the script.
steps=$(awk '/^# 3\./ { on = 1 } on' <<<"$code" | sed -e 's/^rtctl top$/rtctl top --count 1/' \
    -e 's/; exit$//')
# shellcheck disable=SC2016 # the inner shell expands them
out=$("$src/tools/rt_sandbox" --skip-unavailable --config "$src/config" bash -c '
    [ -z "${QXRT_SANDBOX_UNAVAILABLE:-}" ] || { echo "sandbox: $QXRT_SANDBOX_UNAVAILABLE"; exit 77; }
    PATH=$1:$PATH
    set -e
    eval "$2"' _ "$(dirname "$rtctl")" "$steps" 2>&1) || {
    rc=$?
    [ "$rc" = 77 ] && { echo "$out"; exit 77; }
    printf '%s\n' "$out"
    fail "the quick start's steps 3 and 4 exit with $rc"
}
printf '%s\n' "$out"
grep -q "current scheduling policy: SCHED_RR" <<<"$out" || fail "the thread is not SCHED_RR"
grep -q "current scheduling priority: 90" <<<"$out" || fail "the thread's priority is not 90"
grep -q '^Domain_Audio  *RR ' <<<"$out" || fail "top does not show Domain_Audio"
grep -qx consistent <<<"$out" || fail "rtctl check does not say consistent"
echo "the quick start: ok"
