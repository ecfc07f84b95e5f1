#!/usr/bin/env bash
# The README's device steps, followed on a fresh device: in the android guest (scripts/vm
# --layout android --run 'bash tests/vm/android_bringup.sh BUILD'), the library's directories are
# taken away first, then made exactly as examples/android/qxt_realtime.rc makes them (its mkdir,
# mount and setprop lines, done by hand as init would), the configuration is shipped where the
# README says, and an unprivileged-looking client path (rtctl) brings the framework up: init,
# create, admit, check, remove, deinit.
#
#   android_bringup.sh BUILD_DIR
set -euo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
build=$1
rtctl="$build/tools/rtctl"
rc_file="$src/examples/android/qxt_realtime.rc"
fail() { echo "BRINGUP FAILED: $*" >&2; exit 1; }

awk '$2 == "/dev/cpuset" { found = 1 } END { exit !found }' /proc/mounts || fail "no cpuset at /dev/cpuset"
awk '$3 == "cgroup" && $4 ~ /(^|,)cpuacct(,|$)/ { found = 1 } END { exit found }' /proc/mounts ||
    fail "this device mounts cpuacct: not Android's layout"

# A device as it boots: none of the library's directories.
umount -l /dev/shm 2>/dev/null || true
rm -rf /dev/shm /data/vendor/realtime /vendor/etc/realtime
rm -f /dev/qxrt_properties/vendor.kpo.realtime.cfg_name

# The init script's commands, each as init runs it.
while read -r cmd a b c d e; do
    case "$cmd" in
        mkdir) mkdir -p "$a"; chmod "$b" "$a"; chown "$c:$d" "$a" ;;
        mount) opts="$d $e"; mount -t "$a" "$b" "$c" -o "${opts// /,}" ;;
        setprop) printf '%s' "$b" >"/dev/qxrt_properties/$a" ;;
    esac
    echo "rc: $cmd $a $b $c $d $e"
done <<EOF_RC
$(sed -n 's/^    \(mkdir\|mount\|setprop\) /\1 /p' "$rc_file")
EOF_RC
for d in /dev/shm/realtime /data/vendor/realtime; do
    [ "$(stat -c %a "$d")" = 777 ] || fail "$d is not 0777 after the init script"
done
# The vendor image ships the configuration.
mkdir -p /vendor/etc/realtime
cp "$src/config/rt-0.json" /vendor/etc/realtime/

# The framework comes up.
"$rtctl" layout | tee /dev/stderr | grep -qx 'layout: android' || fail "the library did not find Android's layout"
"$rtctl" init
"$rtctl" create Domain_Audio
"$rtctl" create Domain_Camera
sleep 60 &
"$rtctl" add Domain_Audio Class_Render $!
grep -q '^Cpus_allowed_list:[[:space:]]*1$' "/proc/$!/status" || fail "the thread is not on the domain's CPU"
"$rtctl" usage Domain_Audio 100 1
[ "$("$rtctl" check)" = consistent ] || fail "rtctl check is not consistent"
"$rtctl" remove Domain_Audio $!
kill $!
"$rtctl" deinit
echo "bring-up by the README's steps: ok"
