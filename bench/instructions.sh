#!/bin/sh
# SPDX-License-Identifier: BSD-3-Clause
# Counts the user-space instructions per PDU of each path over UDP and TCP: bench/instructions.sh BUILD_DIRECTORY
#
# Starting up, binding symbols and reserving buffers cancel out: what counts is by how much a run of twice the PDUs
# exceeds the shorter one. Two figures, per PDU for send plus receive:
#
#   calls     what executes inside NwSend, NwRecv and flush(), with all that they call (the C library's wrappers
#             and jumps between libraries too). The budgets are for this figure.
#   program   what a program with these calls executes in all, its own instructions for making a call and looking
#             at the result included. Taken off is only the `empty` path: making the PDUs and looking at them. The
#             loops by hand have this figure alone, and it is the one to compare them by.
#
# Ends with 1 when a path is above its budget, or when two runs of it differ: then the figure says nothing.
set -eu
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIRECTORY" >&2; exit 2; }
build=$1
for name in udp_instructions tcp_instructions; do
    [ -x "$build/bench/$name" ] || { echo "$0: no $build/bench/$name; build first" >&2; exit 2; }
done
command -v valgrind >/dev/null || { echo "$0: valgrind is missing" >&2; exit 2; }
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
pdus=18000

# Prints how many instructions path $1 takes for $2 PDUs inside the functions that the other arguments name.
collect() {
    path=$1
    count=$2
    shift 2
    valgrind --tool=callgrind --collect-atstart=no "$@" \
        --callgrind-out-file="$out/callgrind" --log-file="$out/log" "$program" "$path" "$count" >"$out/said" || {
        cat "$out/log" "$out/said" >&2
        exit 2
    }
    sed -n 's/.*Collected : //p' "$out/log"
}
# Per PDU: by how much a longer run exceeds a shorter one, so that starting and warming up cancel out.
perPdu() {
    path=$1
    shift
    shorter=$(collect "$path" $pdus "$@")
    longer=$(collect "$path" $((2 * pdus)) "$@")
    awk -v a="$shorter" -v b="$longer" -v pdus=$pdus 'BEGIN { printf "%.1f", (b - a) / pdus }'
}
countCalls() {
    perPdu "$1" '--toggle-collect=NwSocket::NwSend*' "--toggle-collect=$class::NwRecv*" \
        "--toggle-collect=$flush"
}
countProgram() {
    awk -v all="$(perPdu "$1" --toggle-collect=measured)" -v empty="$empty" 'BEGIN { printf "%.1f", all - empty }'
}

# Which program the next rows are of, and what the library's functions are called there. Both programs make and
# look at the PDUs by the same code, but each has its own `empty`.
use() {  # program, class, flush()
    program=$build/bench/$1
    class=$2
    flush=$3
    empty=$(perPdu empty --toggle-collect=measured)
}

status=0
printf '%-34s %9s %9s %9s\n' "user-space instructions per PDU" program calls budget
row() {  # path, words, budget or -
    calls=-
    verdict=
    case $1 in bare-*) ;; *) calls=$(countCalls "$1") ;; esac
    if [ "$3" != - ]; then
        verdict=$(awk -v a="$calls" -v b="$(countCalls "$1")" -v budget="$3" 'BEGIN {
            print (a - b > 1 || b - a > 1) ? "NOT REPEATABLE: " b : a <= budget ? "PASS" : "MISSED" }')
        [ "$verdict" = PASS ] || status=1
    fi
    printf '%-34s %9s %9s %9s  %s\n' "$2" "$(countProgram "$1")" "$calls" "$3" "$verdict"
}
use udp_instructions NwNetSocket 'NwSocket::flush()'
row unbundled "one PDU a datagram" 200
row bundled "bundles of 1400" 250
row bundled-copied "  copied to the caller" -
row bundled-4-filters-of-1 "  4 filters of 1 value" -
row bundled-4-filters-of-16 "  4 filters of 16 values" -
row bare-unbundled "by hand: one PDU a datagram" -
row bare-bundled "by hand: bundles of 1400" -
row bare-bundled-4-filters-of-16 "  4 filters of 16 values" -
use tcp_instructions NwTcpSocket 'NwTcpSocket::flush()'
row plain "TCP, one PDU a send" 150
row bundled "TCP, bundles of 1400" 150
row bare-plain "by hand: TCP, one PDU a send" -
row bare-bundled "by hand: TCP, bundles of 1400" -
exit $status
