#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-3-Clause
# The main job on real packets: recorded DIS traffic goes bundled from one process to another over loopback, once
# whole and once through a filter; then to two processes on one unicast port, through a packet server.
# Usage: tools/demo/demo.sh BUILD_DIR. Fails when a single PDU is missing.
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
cvnet=$1/tools/cvnet/cvnet
cvpacketserver=$1/packetserver/cvpacketserver
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
capture=$here/../../tests/data/dis/real-dis7-bundled-patrol.pcap

# What a walk over the capture by other means finds: type and PDUs. A replay must send and deliver just this.
recorded='1 137
20 19
25 18
41 57
72 152'
recorded_pdus=383
recorded_datagrams=231
bundle=8192   # bytes a datagram
speed=40      # times as fast as recorded: 2.5 s, and far below what a default receive buffer holds
patience=5    # seconds without a datagram after which the receiver gives up

bold='' green='' red='' plain=''
if [ -t 1 ] && [ -z "${NO_COLOR:-}" ]; then
    bold=$'\e[1m' green=$'\e[32m' red=$'\e[31m' plain=$'\e[0m'
fi

work=$(mktemp -d)
receiver=
others=()  # processes of the second act
finish() {
    local process
    for process in $receiver "${others[@]}"; do kill "$process" 2>/dev/null || true; done
    wait
    rm -rf "$work"
}
trap finish EXIT
trap 'exit 130' INT TERM

fail() {
    printf '%sFAILED: %s%s\n' "$red" "$1" "$plain" >&2
    local name
    for name in received sent first second server; do
        [ -e "$work/$name" ] || continue
        printf -- '--- what was said (%s)\n' "$name" >&2
        cat "$work/$name" "$work/$name.err" >&2 2>/dev/null || true
    done
    exit 1
}

# wait_until_listening NAME PROCESS WHO: waits for the line that tells the port; a process that ended before is a
# failure.
wait_until_listening() {
    local deadline=$((SECONDS + 10))
    until port=$(awk '/^listening on port/ { sub(",", "", $4); print $4; exit }' "$work/$1") && [ -n "$port" ]; do
        kill -0 "$2" 2>/dev/null || fail "$3 did not start"
        [ $SECONDS -lt $deadline ] || fail "$3 does not listen"
        sleep 0.05
    done
}

send_recording() {
    "$cvnet" send --pcap "$capture" --speed $speed --bundle $bundle --to 127.0.0.1 --port "$port" \
        >"$work/sent" 2>"$work/sent.err" || fail 'the sender failed'
}

# replay EXPECTED_PDUS [RECV_OPTION...]: one receiver, one sender; leaves their words in $work.
replay() {
    local expected=$1
    shift
    : >"$work/received"
    "$cvnet" recv --port 0 --summary --count "$expected" --idle $patience "$@" >"$work/received" 2>"$work/received.err" &
    receiver=$!
    wait_until_listening received "$receiver" 'the receiver'
    send_recording
    wait "$receiver" || fail 'the receiver failed'
    receiver=
}

total() { awk -v field="$2" '$1 == "total" { print $(NF-field) }' "$work/$1"; }

# report WANTED: the types side by side. WANTED has a line "type PDUs" for what must arrive.
report() {
    awk -v wanted="$1" -v recorded="$recorded" -v green="$green" -v red="$red" -v plain="$plain" '
        function table(text, into,    lines, count, i, words) {
            count = split(text, lines, "\n")
            for (i = 1; i <= count; i++) { split(lines[i], words, " "); into[words[1]] = words[2] }
        }
        BEGIN {
            table(wanted, must); table(recorded, was)
            printf "   %-32s %9s %9s %9s\n", "PDU type", "recorded", "sent", "received"
        }
        $1 != "type" { next }
        {
            name = sprintf("%3d", $2)
            for (i = 3; i <= NF - 5; i++) name = name " " $i
            if (FILENAME ~ /sent$/) { sent[$2] = $(NF-4); names[$2] = name; order[++types] = $2 }
            else { received[$2] = $(NF-4); if (!($2 in names)) { names[$2] = name; order[++types] = $2 } }
        }
        END {
            for (i = 1; i <= types; i++) {
                type = order[i]
                good = was[type] == sent[type] + 0 && must[type] + 0 == received[type] + 0
                if (!good) bad++
                printf "   %-32s %9d %9d %9d  %s\n", names[type], was[type], sent[type], received[type],
                       good ? green "ok" plain : red "WRONG, expected " must[type] + 0 plain
            }
            for (type in was) if (!(type in names)) { bad++; printf "   %-32s %9d %9d %9d  %s\n", type, was[type], 0, 0, red "MISSING" plain }
            exit bad != 0
        }' "$work/sent" "$work/received"
}

check_totals() {
    local expected=$1 refused=$2
    [ "$(total sent 4)" = $recorded_pdus ] || fail "sent $(total sent 4) PDUs of $recorded_pdus"
    [ "$(total received 4)" = "$expected" ] || fail "received $(total received 4) PDUs of $expected"
    grep -q "^refused by filters: $refused; undivided rests: 0; cut: 0; too short: 0; mixed bundles: 0; dropped by the kernel: 0$" \
        "$work/received" || fail "expected $refused refused, nothing odd and nothing dropped"
}

# "type PDUs" of each type in a table of cvnet; the name in between may hold blanks.
rows() { awk '$1 == "type" { print $2, $(NF-4) }' "$work/$1" | sort -n; }

# The server has told its clients and put everything away when this returns.
stop_server() {
    "$cvnet" server stop --port "$port" --run-dir "$work/run" >"$work/stop" 2>&1 || fail "cvnet server stop: $(cat "$work/stop")"
    wait "$server" || fail 'the packet server failed'
    others=()
    [ -z "$(ls -A "$work/run")" ] || fail "the packet server left behind: $(ls -A "$work/run")"
    ! awk -v creator="$server" '$5 == creator { found = 1 } END { exit !found }' /proc/sysvipc/shm ||
        fail 'the packet server left shared memory behind'
}

# check_client NAME WANTED REFUSED: exactly the wanted PDUs of each type, and every other one refused.
check_client() {
    [ "$(rows "$1")" = "$2" ] || fail "the $1 receiver got, by type and in number: $(rows "$1" | tr '\n' ';')"
    grep -q "^refused by filters: $3; undivided rests: 0; cut: 0; dropped for this client: 0$" "$work/$1" ||
        fail "expected $3 refused for the $1 receiver, nothing odd and nothing dropped"
}

# What the two got, beside what was sent.
report_clients() {
    awk -v green="$green" -v plain="$plain" '
        BEGIN { printf "   %-32s %9s %9s %9s\n", "PDU type", "sent", "first", "second" }
        $1 != "type" { next }
        FILENAME ~ /sent$/ {
            name = sprintf("%3d", $2)
            for (i = 3; i <= NF - 5; i++) name = name " " $i
            names[$2] = name; sent[$2] = $(NF-4); order[++types] = $2
        }
        FILENAME ~ /first$/ { first[$2] = $(NF-4) }
        FILENAME ~ /second$/ { second[$2] = $(NF-4) }
        END {
            for (i = 1; i <= types; i++)
                printf "   %-32s %9d %9s %9s  %s\n", names[order[i]], sent[order[i]], order[i] in first ? first[order[i]] : "-",
                       order[i] in second ? second[order[i]] : "-", green "ok" plain
        }' "$work/sent" "$work/first" "$work/second"
}

# client NAME PDUS FILTER: a receiver through the packet server, which ends with its last PDU.
client() {
    : >"$work/$1"
    "$cvnet" recv --server --port "$port" --run-dir "$work/run" --summary --count "$2" --idle $patience --type "$3" \
        >"$work/$1" 2>"$work/$1.err" &
    others+=($!)
    wait_until_listening "$1" $! "the $1 receiver"
}

[ -x "$cvnet" ] || { echo "$0: no cvnet in $1 (build it first)" >&2; exit 1; }
[ -x "$cvpacketserver" ] || { echo "$0: no cvpacketserver in $1 (build it first)" >&2; exit 1; }
printf '%sRecorded DIS 7 traffic from one process to another%s\n' "$bold" "$plain"
printf '   %s: %s datagrams with %s PDUs,\n   replayed over 127.0.0.1 at %s times the recorded speed, in bundles of up to %s bytes\n\n' \
    "$(basename "$capture")" $recorded_datagrams $recorded_pdus $speed $bundle

printf '%s1. Everything%s\n' "$bold" "$plain"
replay $recorded_pdus
report "$recorded" || fail 'the counts by type differ'
check_totals $recorded_pdus 0
[ "$(total sent 3)" = "$(total received 3)" ] || fail "$(total sent 3) datagrams sent, $(total received 3) received"
[ "$(total sent 3)" -lt $recorded_datagrams ] || fail 'bundling saved no datagram'
printf '   datagrams used: %s, the bundling factor: %s PDUs a datagram\n\n' "$(total sent 3)" \
    "$(awk -v pdus="$(total sent 4)" -v datagrams="$(total sent 3)" 'BEGIN { printf "%.2f", pdus / datagrams }')"

filter='Entity State,Attribute'
wanted='1 137
72 152'
wanted_pdus=289
printf "%s2. The same through a filter: cvnet recv --type '%s'%s\n" "$bold" "$filter" "$plain"
replay $wanted_pdus --type "$filter" --exercise 1
report "$wanted" || fail 'the counts by type differ'
# The capture ends with an Attribute PDU, so all others have been refused when the last wanted one is there.
refused=$((recorded_pdus - wanted_pdus))
check_totals $wanted_pdus $refused
printf '   refused by the socket'\''s filter tests: %s PDUs of other types\n\n' "$refused"

# Both let the last type through and the capture ends with it: then each has refused all it ever will.
first_filter='Entity State,Attribute'
second_filter='!Entity State'
printf "%s3. Two receivers on one unicast port, through the packet server%s\n" "$bold" "$plain"
printf "   cvnet recv --server --type '%s'\n   cvnet recv --server --type '%s'\n\n" "$first_filter" "$second_filter"
mkdir "$work/run"  # the port is that of the last receiver, free again
: >"$work/server"
"$cvpacketserver" --port "$port" --internal --run-dir "$work/run" >"$work/server" 2>&1 &
server=$!
others+=("$server")
deadline=$((SECONDS + 10))
until grep -q 'serving port' "$work/server"; do
    kill -0 "$server" 2>/dev/null || fail 'the packet server did not start'
    [ $SECONDS -lt $deadline ] || fail 'the packet server does not serve'
    sleep 0.05
done
client first 289 "$first_filter"
client second 246 "$second_filter"
send_recording
for process in "${others[@]:1}"; do wait "$process" || fail 'a receiver failed'; done
check_client first "$(printf '1 137\n72 152')" 94
check_client second "$(printf '20 19\n25 18\n41 57\n72 152')" 137
report_clients
stop_server
printf '   each got exactly what its filters let through, also of what both wanted, and nothing was left behind\n\n'
printf '%sEvery PDU arrived, by type and in number.%s\n' "$green" "$plain"
