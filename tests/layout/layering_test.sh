#!/usr/bin/env bash
# The library's files are layers: each calls only the files before it in the order below (the
# README's layout lists them so), which means no two files call each other. Checked on the built
# objects: every undefined symbol of a file that another file of the library defines must come
# from a lower layer. The platform seam and jsmn sit below all of them.
#
#   layering_test.sh NM OBJECT...
set -euo pipefail
nm=$1
shift
order=(diagnostics shared_state config lifecycle cgroup_files domains threads monitoring)
declare -A rank=() owner=()
for i in "${!order[@]}"; do rank[${order[$i]}]=$i; done

unit() { local b; b=$(basename "$1"); echo "${b%%.*}"; }

bad=0
for o in "$@"; do
    u=$(unit "$o")
    case "$o" in
    */src/qx_realtime/*)
        if [ -z "${rank[$u]+set}" ]; then
            echo "$u: a file of the library without a place in the layer order of $0"
            bad=1
        fi ;;
    esac
    while read -r sym; do owner[$sym]=$u; done < <("$nm" --defined-only -g "$o" | awk 'NF == 3 { print $3 }')
done
for o in "$@"; do
    u=$(unit "$o")
    [ -n "${rank[$u]+set}" ] || continue
    while read -r sym; do
        d=${owner[$sym]:-}
        if [ -z "$d" ] || [ "$d" = "$u" ] || [ -z "${rank[$d]+set}" ]; then continue; fi
        if [ "${rank[$d]}" -ge "${rank[$u]}" ]; then
            echo "$u calls $d ($sym), which is not a lower layer"
            bad=1
        fi
    done < <("$nm" -u "$o" | awk '{ print $NF }')
done
[ $bad = 0 ] && echo "layering: ${#order[@]} files, each calls only lower layers"
exit $bad
