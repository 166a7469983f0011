#!/usr/bin/env bash
# What a library exports is what its list promises, and tools/check-exports would notice if it were not.
#
# usage: exports_test.sh SOURCE LIBRARY LIST SCRATCH
set -euo pipefail
export LC_ALL=C.UTF-8
check=$1/tools/check-exports
library=$2
list=$3
scratch=$4

"$check" "$list" "$library"

trap 'rm -f "$scratch"' EXIT
first=$(head -n 1 "$list")
tail -n +2 "$list" >"$scratch"
said=$("$check" "$scratch" "$library") && exit 1
[ "$said" = "extra: $first is in what ${library##*/} exports, but not in ${scratch##*/}" ]

{ cat "$list"; echo zzz_nowhere; } >"$scratch"
said=$("$check" "$scratch" "$library") && exit 1
[ "$said" = "missing: zzz_nowhere stands in ${scratch##*/}, but not in what ${library##*/} exports" ]
