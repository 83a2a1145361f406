#!/bin/sh
# SPDX-License-Identifier: BSD-3-Clause
# Writes the lists of exported names anew from a build: tests/abi/update.sh BUILD_DIRECTORY
# Look at the difference before committing it: a name that goes, or changes, breaks programs that are already built.
set -eu
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIRECTORY" >&2; exit 2; }
here=$(cd "$(dirname "$0")" && pwd)

cmake --build "$1" --target cvutil cvNetworkCompatibility abi_list_exports
"$1/tests/abi/abi_list_exports" "$1/companion/cvutil/libcvutil.so" >"$here/cvutil.symbols.new"
"$1/tests/abi/abi_list_exports" "$1/libsrc/cvNetworkCompatibility/libcvNetworkCompatibility.so" \
    >"$here/cvNetworkCompatibility.symbols.new"
for list in cvutil cvNetworkCompatibility; do
    mv "$here/$list.symbols.new" "$here/$list.symbols"
done
echo "now: git diff $here"
