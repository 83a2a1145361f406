#!/bin/sh
# SPDX-License-Identifier: BSD-3-Clause
# Counts the user-space instructions per PDU of each path: bench/instructions.sh BUILD_DIRECTORY
#
# callgrind collects while udp_instructions is inside `measured`, everything that is called from there: the
# library, the C library's wrappers, jumps between libraries. Symbols are bound and buffers reserved before.
# From the count per PDU only that of the `empty` path is taken off: the loop that makes PDUs and looks at them.
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
    valgrind --tool=callgrind --collect-atstart=no --toggle-collect=measured \
        --callgrind-out-file="$out/callgrind" --log-file="$out/log" "$program" "$1" $pdus >"$out/said" || {
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
    first=$(count "$1")
    verdict=
    if [ "$3" != - ]; then
        second=$(count "$1")
        verdict=$(awk -v a="$first" -v b="$second" -v empty="$empty" -v budget="$3" 'BEGIN {
            if (a - b > 1 || b - a > 1) print "NOT REPEATABLE: " b - empty; else print (a - empty <= budget) ? "PASS" : "MISSED" }')
        [ "$verdict" = PASS ] || status=1
    fi
    printf '%-34s %13s %9s  %s\n' "$2" "$(awk -v a="$first" -v b="$empty" 'BEGIN { printf "%.1f", a - b }')" "$3" "$verdict"
}
row unbundled "one PDU a datagram" 200
row bundled "bundles of 1400" 250
row bundled-copied "  copied to the caller" -
row bundled-4-filters-of-1 "  4 filters of 1 value" -
row bundled-4-filters-of-16 "  4 filters of 16 values" -
row bare-unbundled "by hand: one PDU a datagram" -
row bare-bundled "by hand: bundles of 1400" -
row bare-bundled-4-filters-of-16 "  4 filters of 16 values" -
printf 'taken off each: %s, the loop that makes PDUs and looks at them\n' "$empty"
exit $status
