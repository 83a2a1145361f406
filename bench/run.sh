#!/bin/sh
# SPDX-License-Identifier: BSD-3-Clause
# All benchmarks: bench/run.sh BUILD_DIRECTORY [options of udp_bench]. BUILD_DIRECTORY holds a release build.
# Timings are told, with PASS or MISSED; instructions above their budget make it end with 1.
set -eu
[ $# -ge 1 ] || { echo "usage: $0 BUILD_DIRECTORY [--quick] [--pairs N] [--json FILE]" >&2; exit 2; }
build=$1
shift
"$build/bench/udp_bench" "$@"
echo
"$build/bench/async_bench"
"$build/bench/transports_bench"
"$build/bench/tcp_bench"
"$build/bench/relay_bench"
"$build/bench/file_bench"
"$build/bench/packet_server_bench"
echo
"$(dirname "$0")/instructions.sh" "$build"
