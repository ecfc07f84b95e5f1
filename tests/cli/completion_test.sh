#!/usr/bin/env bash
# rtctl's bash completion, sourced as bash-completion would source it and asked as bash asks
# (COMP_WORDS, COMP_CWORD): commands, options, and domain names from `rtctl list`, in a sandbox
# with both domains of the shipped configuration (exit 77: no sandbox here).
#
#   completion_test.sh SOURCE_DIR RTCTL
set -euo pipefail
src=$1
rtctl=$2
if [ "${3:-}" != --inside ]; then
    exec "$src/tools/rt_sandbox" --skip-unavailable --config "$src/config" "$0" "$src" "$rtctl" --inside
fi
[ -z "${QXRT_SANDBOX_UNAVAILABLE:-}" ] || { echo "sandbox: $QXRT_SANDBOX_UNAVAILABLE"; exit 77; }
fail() { echo "FAILED: $*" >&2; exit 1; }

PATH=$(dirname "$rtctl"):$PATH
rtctl init >/dev/null
rtctl create Domain_Audio >/dev/null
rtctl create Domain_Camera >/dev/null
# shellcheck source=/dev/null
source "$src/tools/rtctl.bash-completion"
complete -p rtctl | grep -q -- '-F _rtctl' || fail "no completion registered for rtctl"

# The completions of a command line whose last word is being typed, sorted, one a line.
completions() {
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    COMP_LINE="$*"
    COMP_POINT=${#COMP_LINE}
    COMPREPLY=()
    _rtctl
    [ ${#COMPREPLY[@]} -eq 0 ] || printf '%s\n' "${COMPREPLY[@]}" | sort
}
expect() {
    local want=$1
    shift
    local got
    got=$(completions "$@" | tr '\n' ' ')
    [ "$got" = "$want" ] || fail "rtctl ${*:2}: completes to '$got', not '$want'"
}

# Every command of the help, and nothing else.
commands=$(rtctl --help | sed -n '/^commands:/,/^$/s/^  \([a-z][a-z-]*\).*/\1/p' | sort -u)
got=$(completions rtctl "" | grep -vx help)
[ "$got" = "$commands" ] || fail "rtctl <TAB> gives:\n$got\nnot:\n$commands"
expect "debug-level deinit delete " rtctl de
expect "--json " rtctl --js
expect "Domain_Audio Domain_Camera " rtctl dump Domain_
expect "All Domain_Audio Domain_Camera " rtctl usage ""
expect "Domain_Camera " rtctl add Domain_C
expect "Domain_Audio " rtctl -v remove Domain_A
expect "" rtctl remove Domain_Audio ""
expect "--help --json --svg --verbose " rtctl usage --
expect "--runtime " rtctl update Domain_Camera 1 --r
expect "--period " rtctl budget Domain_Camera --pe
expect "" rtctl budget Domain_Camera -T ""
expect "check " rtctl help ch
# Files where a file is wanted.
tmp=$(mktemp -d /tmp/qxrt_completion.XXXXXX)
trap 'rm -rf "$tmp"' EXIT
touch "$tmp/rt-a.json" "$tmp/rt-b.json"
expect "$tmp/rt-a.json $tmp/rt-b.json " rtctl lint "$tmp/rt-"
expect "$tmp/rt-a.json " rtctl usage All 100 2 --svg "$tmp/rt-a"
echo "bash completion: ok"
