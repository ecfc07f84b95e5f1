#!/usr/bin/env bash
# The licence ships with the source: LICENSE holds the Apache License 2.0 whole, and Android.bp
# declares it (a license module of that kind, the package's default) in bpfmt's format.
#
#   license_test.sh SOURCE_DIR
set -euo pipefail
src=$1
fail() { echo "FAILED: $*" >&2; exit 1; }

license=$src/LICENSE
[ -f "$license" ] || fail "no LICENSE at the top of the tree"
grep -q '^ *Apache License$' "$license" || fail "LICENSE is not the Apache License"
grep -q '^ *Version 2.0, January 2004$' "$license" || fail "LICENSE is not version 2.0"
# The whole text: every one of its nine sections, the end of the terms and the appendix.
for n in 1 2 3 4 5 6 7 8 9; do
    grep -q "^   $n\. [A-Z]" "$license" || fail "LICENSE lacks section $n"
done
grep -q 'END OF TERMS AND CONDITIONS' "$license" || fail "LICENSE is cut short"
grep -q 'APPENDIX: How to apply the Apache License to your work' "$license" ||
    fail "LICENSE lacks its appendix"

bp=$src/Android.bp
module=$(sed -n 's/^ *default_applicable_licenses: \["\([^"]*\)"\],$/\1/p' "$bp")
[ -n "$module" ] || fail "Android.bp has no package { default_applicable_licenses }"
# The license module of that name, its kind and its text.
block=$(awk -v name="$module" '
    /^license {/ { inside = 1; text = "" }
    inside { text = text $0 "\n" }
    inside && /^}/ { if (index(text, "name: \"" name "\"")) printf "%s", text; inside = 0 }
' "$bp")
[ -n "$block" ] || fail "Android.bp has no license module named $module"
grep -q 'license_kinds: \["SPDX-license-identifier-Apache-2.0"\]' <<<"$block" ||
    fail "the license module is not of kind SPDX-license-identifier-Apache-2.0"
grep -q 'license_text: \["LICENSE"\]' <<<"$block" || fail "the license module does not name LICENSE"

if command -v bpfmt >/dev/null; then
    out=$(bpfmt -d "$bp" 2>&1) || fail "Android.bp does not parse: $out"
    [ -z "$out" ] || fail "Android.bp is not in bpfmt's format: $out"
else
    echo "bpfmt is missing (blueprint-tools): Android.bp's format not checked"
fi
echo "LICENSE and the licence in Android.bp: ok"
