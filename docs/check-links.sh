#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-3-Clause
# Every relative link in a Markdown page leads to a file of this tree.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
broken=0
while IFS= read -r page; do
    while IFS= read -r target; do
        target=${target%%#*}
        [ -z "$target" ] && continue
        if [ ! -e "$(dirname "$page")/$target" ]; then
            echo "$page: no such file: $target" >&2
            broken=1
        fi
    done < <(sed '/^```/,/^```/d' "$page" | grep -oE '\]\([^)]+\)' | sed -E 's/^\]\(//; s/\)$//' | grep -vE '^[a-z]+:' || true)
done < <(git ls-files '*.md' | grep -v '^tests/data/')
exit $broken
