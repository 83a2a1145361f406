#!/bin/sh
# SPDX-License-Identifier: BSD-3-Clause
# Fuzzes each target (or the one named) for so many seconds, with address and undefined sanitizers:
#
#     fuzz/run.sh SECONDS [TARGET]
#
# Ends with 1 when something was found. What was learnt stays in build/fuzz/corpus for the next run.
set -eu
cd "$(dirname "$0")/.."

seconds=${1:-60}
case $seconds in '' | *[!0-9]*)
    echo "usage: fuzz/run.sh SECONDS [TARGET]" >&2
    exit 2
    ;;
esac
targets=${2:-$(cd fuzz && ls -- *_fuzz.cpp | sed 's/_fuzz\.cpp$//')}
for target in $targets; do
    if [ ! -f "fuzz/${target}_fuzz.cpp" ]; then
        echo "fuzz/run.sh: no target $target" >&2
        exit 2
    fi
done

cmake --preset fuzz >/dev/null
for target in $targets; do cmake --build --preset fuzz --target "${target}_fuzz"; done

export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
status=0
for target in $targets; do
    corpus=build/fuzz/corpus/$target
    findings=build/fuzz/findings/$target
    mkdir -p "$corpus" "$findings"
    echo "== $target, $seconds s"
    if ! "build/fuzz/fuzz/${target}_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
        -artifact_prefix="$findings/" -print_final_stats=1 "$corpus" "fuzz/seeds/$target"; then
        status=1
        echo "found something: mend it, and keep the file of $findings as fuzz/seeds/$target/crash-WHAT-IT-WAS" >&2
    fi
done
exit $status
