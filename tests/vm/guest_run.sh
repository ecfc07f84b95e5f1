#!/bin/sh
# The guest side of scripts/vm: busybox init starts this as the guest's only job. It mounts the
# kernel's filesystems and the chosen cgroup layout, lays out the library's fixed paths (the guest
# is the sandbox), runs the plan one test case at a time with the state reset before each case,
# prints a summary and powers the guest off. The host reads everything from the serial console;
# the last line is "vm-status: N" (0: every case passed or was skipped).
#
# Inputs, written by scripts/vm into the initramfs:
#   /vm/settings   shell assignments: LAYOUT SRC BUILD CASE_TIMEOUT STRESS_SECONDS LAUNCHER (the
#                  command a test case runs under, or nothing: the guest is the sandbox)
#   /vm/plan       one item a line, fields separated by a tab:
#                    gtest<TAB>BINARY<TAB>FILTER      every case of BINARY matching FILTER, one by one
#                    prog<TAB>NAME<TAB>COMMAND        one program (sh -c COMMAND); exit 77 = skipped
#   /vm/skips      PATTERN<TAB>REASON: cases (Suite.Case, shell patterns) not run, and why
#   /vm/config/    the configuration files copied into /vendor/etc/realtime before each case
#   /vm/modules/   kernel modules the layout needs (overlay.ko for the test launcher on v2)
# shellcheck shell=sh disable=SC3043 # busybox ash has local

export PATH=/usr/sbin:/usr/bin:/sbin:/bin
export HOME=/root TERM=xterm LANG=C.UTF-8
umask 022

# ---- the kernel's filesystems ----
mkdir -p /proc /sys /dev /tmp /root /run/lock
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev 2>/dev/null
mkdir -p /dev/pts /dev/shm
# What a service manager links in /dev (bash's process substitution reads /dev/fd).
[ -e /dev/fd ] || ln -s /proc/self/fd /dev/fd
mount -t devpts -o ptmxmode=0666,mode=0620 devpts /dev/pts
# A fresh /tmp, unless the staged source or build tree lies under it (a checkout in /tmp).
[ -n "$(ls -A /tmp 2>/dev/null)" ] || mount -t tmpfs -o mode=1777 tmp /tmp
# Only emergencies on the console: kernel warnings must not interleave with the report.
echo 1 >/proc/sys/kernel/printk

# shellcheck source=/dev/null
. /vm/settings
say() { printf '%s\n' "$*"; }
# Centiseconds since the guest kernel started, in $now (no process started: under emulation
# every fork costs).
now_cs() {
    local up frac
    read -r up _ </proc/uptime
    frac=${up#*.}
    now=$((${up%.*} * 100 + ${frac#0}))
}
secs() { printf '%d.%02d' $(($1 / 100)) $(($1 % 100)); }
now_cs
say "vm: booted in $(secs "$now") s (kernel $(uname -r), $(uname -m), $(grep -c ^processor /proc/cpuinfo) CPUs); layout $LAYOUT"

# ---- the cgroup layout ----
# What each layout mounts, one "DIR TYPE OPTIONS" a line, in mount order.
layout_table() {
    case "$LAYOUT" in
        device)
            # The device the library was written for: unprefixed cpuset files, cpuacct beside it.
            echo "/dev/cpuset cgroup cpuset,noprefix"
            echo "/dev/cpuacct cgroup cpuacct"
            ;;
        android)
            # Android 12 and later: cpuset as filesystem type cpuset, cpu at /dev/cpuctl, memory
            # on cgroup v2, no cpuacct anywhere.
            echo "/dev/cpuset cpuset -"
            echo "/dev/cpuctl cgroup cpu"
            echo "/sys/fs/cgroup cgroup2 -"
            ;;
        linux-v1)
            # A v1 Linux host: prefixed hierarchies under /sys/fs/cgroup, each controller on its
            # own, the unified hierarchy beside them; /dev/cpuset and /dev/cpuacct are second
            # mounts of the same hierarchies with the same options, as the host sandbox maps them.
            echo "/sys/fs/cgroup tmpfs mode=755"
            for c in cpu cpuacct cpuset memory; do
                grep -qw "^$c" /proc/cgroups && echo "/sys/fs/cgroup/$c cgroup $c"
            done
            echo "/sys/fs/cgroup/unified cgroup2 -"
            echo "/dev/cpuset cgroup cpuset"
            echo "/dev/cpuacct cgroup cpuacct"
            ;;
        v2)
            # A host that has left v1 (the kernel binds nothing to it: cgroup_no_v1=all): the one
            # hierarchy, organised as a service manager does by service_layout below.
            echo "/sys/fs/cgroup cgroup2 -"
            ;;
        *) return 1 ;;
    esac
}
# Mounts whatever of the layout is not mounted (again: a test may take a hierarchy away, and
# removing its mount point in the case's namespace unmounts it here too). Sets cgroup_roots, the
# hierarchies cleaned between cases.
mount_layout() {
    local dir type opts ok=0 mounts
    cgroup_roots=""
    mounts=$(cat /proc/mounts)
    while read -r dir type opts; do
        case "$mounts" in *" $dir "*) ;; *)
            mkdir -p "$dir"
            if [ "$opts" = - ]; then
                mount -t "$type" "$type" "$dir"
            else
                mount -t "$type" -o "$opts" "$type" "$dir"
            fi || { say "vm: cannot mount $type ($opts) at $dir"; ok=1; }
            # Memory on the unified hierarchy, as Android puts it, where the kernel has it.
            if [ "$dir" = /sys/fs/cgroup ] && [ "$type" = cgroup2 ] &&
               grep -qw memory /sys/fs/cgroup/cgroup.controllers; then
                echo +memory >/sys/fs/cgroup/cgroup.subtree_control
            fi
            ;;
        esac
        [ "$type" = tmpfs ] || cgroup_roots="$cgroup_roots $dir"
    done <<EOF_LAYOUT
$(layout_table)
EOF_LAYOUT
    return "$ok"
}
# v2: the hierarchy as a service manager sets it up: cpuset and cpu on at the root and in
# /system.slice, init in /init.scope, and this runner's service /system.slice/qxrt-tests.service
# delegated to it, the runner in the service's leaf main (as systemd's Delegate=yes with
# DelegateSubgroup=main puts it), cpuset and cpu on in the service's group (its subtree is the
# runner's to manage): the test launcher makes its groups beside that leaf, in the delegated
# group. Processes live in leaves only. (The runner can't sit in the service's group
# itself: a group with processes and cpuset on for its children is a thread root, below which
# the kernel takes no domain group.)
service=/sys/fs/cgroup/system.slice/qxrt-tests.service
service_layout() {
    local g=/sys/fs/cgroup
    if ! { echo "+cpuset +cpu" >"$g/cgroup.subtree_control" &&
        mkdir -p "$g/init.scope" "$g/system.slice" && echo 1 >"$g/init.scope/cgroup.procs" &&
        echo "+cpuset +cpu" >"$g/system.slice/cgroup.subtree_control" &&
        mkdir -p "$service/main" && echo "+cpuset +cpu" >"$service/cgroup.subtree_control" &&
        echo $$ >"$service/main/cgroup.procs"; }; then
        say "vm: cannot set up the service layout on /sys/fs/cgroup"
        return 1
    fi
    # The test launcher's overlay on /dev.
    if [ -f /vm/modules/overlay.ko ] && ! grep -qw overlay /proc/filesystems; then
        insmod /vm/modules/overlay.ko || say "vm: cannot load overlay.ko"
    fi
    return 0
}
layout_ok=1
layout_table >/dev/null || { say "vm: unknown layout $LAYOUT"; layout_ok=0; }
[ "$layout_ok" = 1 ] && { mount_layout || layout_ok=0; }
[ "$layout_ok" = 1 ] && [ "$LAYOUT" = v2 ] && { service_layout || layout_ok=0; }
grep -E ' (cgroup|cgroup2|cpuset) ' /proc/mounts | awk '{ print "vm: mount " $2 " " $3 " " $4 }'

# ---- the library's fixed paths ----
# Fresh tmpfs mounts for each case, as the host sandbox gives them (a test may remove or replace
# the directories themselves).
fresh_paths() {
    local m
    # Mounted once each by this runner (a case's own mounts stay in its namespace).
    for m in /dev/shm /data /vendor; do
        umount -l "$m" 2>/dev/null
    done
    mkdir -p /data /vendor
    mount -t tmpfs -o mode=1777 shm /dev/shm
    mount -t tmpfs -o mode=755 data /data
    mount -t tmpfs -o mode=755 vendor /vendor
    mkdir -m 0777 /dev/shm/realtime
    mkdir -p /data/vendor/realtime /vendor/etc/realtime
    chmod 0777 /data/vendor/realtime
    # The shipped configuration for the programs (the demo, --run), as rt_sandbox --config gives
    # it; a test case starts without one, as under the host's test launcher, and installs its own.
    [ "${with_config:-1}" = 1 ] && cp /vm/config/* /vendor/etc/realtime/ 2>/dev/null
    rm -rf /dev/qxrt_properties /tmp/*
    mkdir -m 0777 /dev/qxrt_properties
}
export QXRT_SANDBOX="vm-$LAYOUT"
# The layout, as tools/rt_sandbox names it to the tests and the demo (only "android" changes what
# they expect: no cpuacct hierarchy).
export QXRT_SANDBOX_LAYOUT="$LAYOUT"
export QXRT_STRESS_SECONDS="${STRESS_SECONDS:-5}"

# Ends every process but init, this runner and the kernel's threads (which have no executable).
kill_leftovers() {
    local round p pid left
    for round in 1 2 3 4 5; do
        left=""
        for p in /proc/[0-9]*; do
            pid=${p#/proc/}
            [ "$pid" = 1 ] || [ "$pid" = $$ ] || [ ! -e "$p/exe" ] && continue
            left="$left $pid"
        done
        [ -z "$left" ] && return 0
        # shellcheck disable=SC2086 # a list of pids
        kill -9 $left 2>/dev/null
        sleep 0.1
    done
    [ "$round" = 5 ] && say "vm: processes left after a case:$left"
}
# Every case starts as on a fresh device: no segments, lock files, properties or child cgroups,
# the shipped configuration in place.
reset_state() {
    local root
    kill_leftovers
    mount_layout
    for root in $cgroup_roots; do
        find "$root" -mindepth 1 -depth -type d -exec rmdir {} \; 2>/dev/null
    done
    if [ "$LAYOUT" = v2 ]; then
        # No test launcher's state of a killed case.
        rm -rf /run/lock/qxrt_*
    fi
    fresh_paths
    return 0
}

# ---- running the plan ----
passed=0 failed=0 skipped=0
: >/vm/failures
: >/vm/skip_reasons
skip_reason() { # NAME: the reason from /vm/skips, or nothing
    local pat reason
    while IFS="$(printf '\t')" read -r pat reason; do
        [ -n "$pat" ] || continue
        # shellcheck disable=SC2254 # the pattern is a shell pattern on purpose
        case "$1" in $pat) say "$reason"; return 0 ;; esac
    done </vm/skips
    return 1
}
record_skip() { # NAME REASON
    skipped=$((skipped + 1))
    say "SKIP $1: $2"
    say "$2" >>/vm/skip_reasons
}
# run_one NAME DIR COMMAND...: one case with the state reset, its outcome from the exit status
# (77: skipped) and, for GoogleTest, the "[  SKIPPED ]" line.
run_one() {
    local name="$1" dir="$2" t0 t1 rc reason
    shift 2
    if [ -s /vm/skips ] && reason=$(skip_reason "$name"); then
        record_skip "$name" "$reason"
        return
    fi
    reset_state
    now_cs
    t0=$now
    # Its own mount namespace, as the host sandbox gives each case: tests mount over /proc files
    # and take hierarchies away, which must not outlive the case.
    (cd "$dir" && exec unshare -m --propagation private timeout -s KILL "$CASE_TIMEOUT" "$@") \
        </dev/null >/vm/case.log 2>&1
    rc=$?
    now_cs
    t1=$now
    if [ "$rc" = 0 ] && grep -q '^\[  SKIPPED \] [^ ]*\.' /vm/case.log; then
        # GoogleTest prints the reason just before the SKIPPED line.
        reason=$(grep -B1 '^\[  SKIPPED \] [^ ]*\.' /vm/case.log | head -1)
        record_skip "$name" "$reason"
    elif [ "$rc" = 77 ]; then
        record_skip "$name" "$(tail -n 1 /vm/case.log)"
    elif [ "$rc" = 0 ]; then
        passed=$((passed + 1))
        # A program's output is what it was run for; a passing test case's is not shown.
        [ "$kind" = prog ] && sed 's/^/    | /' /vm/case.log
        say "PASS $name ($(secs $((t1 - t0))) s)"
    else
        failed=$((failed + 1))
        [ "$rc" = 137 ] && rc="137, killed after $CASE_TIMEOUT s"
        say "FAIL $name (exit $rc, $(secs $((t1 - t0))) s); its output:"
        tail -n 80 /vm/case.log | sed 's/^/    | /'
        say "$name" >>/vm/failures
    fi
}
run_gtest() { # BINARY FILTER
    local bin="$1" filter="$2" suite line name
    if [ ! -x "$bin" ]; then
        failed=$((failed + 1))
        say "FAIL $bin: not in the guest"
        say "$bin" >>/vm/failures
        return
    fi
    "$bin" --gtest_list_tests --gtest_filter="$filter" >/vm/list.txt 2>&1 || {
        failed=$((failed + 1))
        say "FAIL $bin: cannot list its tests:"
        sed 's/^/    | /' /vm/list.txt
        say "$bin --gtest_list_tests" >>/vm/failures
        return
    }
    say "== ${bin##*/} ($filter)"
    # "Suite." lines, then "  Case" lines (parameterised ones carry a "  # GetParam() = ..." note).
    sed 's/ *#.*//' /vm/list.txt >/vm/cases.txt
    while IFS= read -r line; do
        # shellcheck disable=SC2086 # the launcher is a command line of several words, or none
        case "$line" in
            "  "*) name="$suite${line#  }"; run_one "$name" "${bin%/*}" $LAUNCHER "$bin" --gtest_filter="$name" ;;
            *.) suite=$line ;;
        esac
    done </vm/cases.txt
}

now_cs
started=$now
if [ "$layout_ok" = 1 ]; then
    tab=$(printf '\t')
    while IFS="$tab" read -r kind what arg; do
        case "$kind" in
            gtest) with_config=0; run_gtest "$what" "$arg" ;;
            prog) with_config=1; say "== $what"; run_one "$what" "${SRC:-/}" sh -c "$arg" ;;
        esac
    done </vm/plan
else
    failed=$((failed + 1))
    say "layout $LAYOUT could not be set up" >>/vm/failures
fi
reset_state

now_cs
say "vm: ran for $(secs $((now - started))) s"
if [ -s /vm/skip_reasons ]; then
    say "vm: skip reasons (count, reason):"
    sort /vm/skip_reasons | uniq -c | sed 's/^/   /'
fi
if [ -s /vm/failures ]; then
    say "vm: failed:"
    sed 's/^/   /' /vm/failures
fi
say "vm: $passed passed, $failed failed, $skipped skipped"
status=0
[ "$failed" = 0 ] || status=1
say "vm-status: $status"
sync
poweroff -f
