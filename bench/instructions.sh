#!/bin/sh
# SPDX-License-Identifier: BSD-3-Clause
# Counts the user-space instructions per PDU of each path: bench/instructions.sh BUILD_DIRECTORY
#
# For the library's paths callgrind collects while the program is inside NwSend, NwRecv or flush(), with
# everything that these call: the C library's wrappers and jumps between libraries too. For the loops by hand it
# collects inside `measured`, and takes off the `empty` path: the loop that makes PDUs and looks at them. Symbols
# are bound and buffers reserved before.
#
# Ends with 1 when a path is above its budget, or when two runs of it differ: then the figure says nothing.
set -eu
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIRECTORY" >&2; exit 2; }
program=$1/bench/udp_instructions
[ -x "$program" ] || { echo "$0: no $program; build first" >&2; exit 2; }
command -v valgrind >/dev/null || { echo "$0: valgrind is missing" >&2; exit 2; }
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
pdus=18000

# Prints the instructions per PDU of path $1.
count() {
    case $1 in
    bare-* | empty) set -- "$1" --toggle-collect=measured ;;
    *) set -- "$1" '--toggle-collect=NwSocket::NwSend*' '--toggle-collect=NwNetSocket::NwRecv*' \
        '--toggle-collect=NwSocket::flush()' ;;
    esac
    path=$1
    shift
    valgrind --tool=callgrind --collect-atstart=no "$@" \
        --callgrind-out-file="$out/callgrind" --log-file="$out/log" "$program" "$path" $pdus >"$out/said" || {
        cat "$out/log" "$out/said" >&2
        exit 2
    }
    counted=$(sed -n 's/^pdus //p' "$out/said")
    awk -v pdus="$counted" '/Collected/ { printf "%.1f\n", $NF / pdus }' "$out/log"
}

empty=$(count empty)
status=0
printf '%-34s %13s %9s\n' "user-space instructions per PDU" "send+receive" "budget"
row() {  # path, words, budget or -
    case $1 in bare-*) offset=$empty ;; *) offset=0 ;; esac
    first=$(count "$1")
    verdict=
    if [ "$3" != - ]; then
        second=$(count "$1")
        verdict=$(awk -v a="$first" -v b="$second" -v empty="$offset" -v budget="$3" 'BEGIN {
            if (a - b > 1 || b - a > 1) print "NOT REPEATABLE: " b - empty; else print (a - empty <= budget) ? "PASS" : "MISSED" }')
        [ "$verdict" = PASS ] || status=1
    fi
    printf '%-34s %13s %9s  %s\n' "$2" "$(awk -v a="$first" -v b="$offset" 'BEGIN { printf "%.1f", a - b }')" "$3" "$verdict"
}
row unbundled "one PDU a datagram" 200
row bundled "bundles of 1400" 250
row bundled-copied "  copied to the caller" -
row bundled-4-filters-of-1 "  4 filters of 1 value" -
row bundled-4-filters-of-16 "  4 filters of 16 values" -
row bare-unbundled "by hand: one PDU a datagram" -
row bare-bundled "by hand: bundles of 1400" -
row bare-bundled-4-filters-of-16 "  4 filters of 16 values" -
printf 'taken off those by hand: %s, the loop that makes PDUs and looks at them\n' "$empty"
exit $status
