#!/usr/bin/env bash
# scripts/demo installs only what the demo needs, scripts/test everything the suite needs: the
# sets of scripts/install-deps, read with --list (nothing is installed).
#
#   install_deps_test.sh SOURCE_DIR
set -euo pipefail
src=$1
fail() { echo "FAILED: $*" >&2; exit 1; }

demo=$("$src/scripts/install-deps" --demo --list)
all=$("$src/scripts/install-deps" --list)
# The demo builds the library, rtctl and the examples and runs them in the sandbox: nothing of the
# development set.
for p in cmake g++ android-liblog-dev libjsmn-dev util-linux libncurses-dev; do
    grep -qx "$p" <<<"$demo" || fail "the demo's set lacks $p"
done
for p in clang libclang-rt-dev shellcheck clang-format g++-multilib libgtest-dev libbenchmark-dev \
         tmux nlohmann-json3-dev; do
    ! grep -qx "$p" <<<"$demo" || fail "the demo's set has $p, which only the tests need"
done
# Everything: the demo's set and the suite's.
while read -r p; do
    grep -qx "$p" <<<"$all" || fail "the whole set lacks the demo's $p"
done <<<"$demo"
for p in libgtest-dev libbenchmark-dev clang g++-multilib tmux libxml2-utils python3 pkg-config \
         nlohmann-json3-dev shellcheck clang-format blueprint-tools; do
    grep -qx "$p" <<<"$all" || fail "the whole set lacks $p"
done
# Who asks for which.
grep -q '^    scripts/install-deps --demo$' "$src/scripts/demo" || fail "scripts/demo does not ask for --demo"
grep -q '^scripts/install-deps$' "$src/scripts/test" || fail "scripts/test does not install the whole set"
"$src/scripts/install-deps" --frobnicate 2>/dev/null && fail "an unknown option is accepted"
echo "the demo's packages and the suite's: ok"
