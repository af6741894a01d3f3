#!/bin/sh
# The shared library exports exactly the listed symbols.  usage: exported_symbols.sh NM LIBRARY LIST
set -eu
actual=$(mktemp) && expected=$(mktemp)
trap 'rm -f "$actual" "$expected"' EXIT
"$1" -D --defined-only "$2" | awk '{print $3}' | LC_ALL=C sort > "$actual"
grep -v '^#' "$3" | LC_ALL=C sort > "$expected"
test "$(wc -l < "$expected")" -gt 10
diff "$expected" "$actual" && echo "$(wc -l < "$actual") exported symbols, as listed"
