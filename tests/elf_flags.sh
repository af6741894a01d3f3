#!/bin/sh
# What is installed is hardened, and nothing in the folder looks for libraries in the current directory.
# usage: elf_flags.sh READELF FOLDER HARDENED...
set -eu
readelf=$1 folder=$2
shift 2
fail() {
  echo "$1: $2"
  exit 1
}

list=$(mktemp)
trap 'rm -f "$list"' EXIT
find "$folder" -type f \( -perm -u+x -o -name '*.so*' \) > "$list"
checked=0
while read -r file; do
  "$readelf" -h "$file" > /dev/null 2>&1 || continue
  checked=$((checked + 1))
  path=$("$readelf" -d "$file" 2> /dev/null | sed -n 's/.*R\(UN\)\{0,1\}PATH).*\[\(.*\)\]/\2/p')
  [ -n "$path" ] || continue
  echo "$path:" | tr ':' '\n' | sed '$d' | grep -qvE '^(/|\$ORIGIN(/|$))' && fail "$file" "RUNPATH $path"
done < "$list"
[ "$checked" -gt 0 ] || fail "$folder" "nothing to check"

for file in "$@"; do
  "$readelf" -h "$file" | grep -q 'Type: *DYN' || fail "$file" "neither shared nor position-independent"
  "$readelf" -lW "$file" | grep -q 'GNU_RELRO' || fail "$file" "relocations stay writable"
  "$readelf" -lW "$file" | grep 'GNU_STACK' | grep -q 'RWE' && fail "$file" "the stack is executable"
  "$readelf" -dW "$file" | grep -q 'BIND_NOW' || fail "$file" "functions are bound late"
  symbols=$("$readelf" -sW --dyn-syms "$file")
  echo "$symbols" | grep -q "UND .*__stack_chk_fail" || fail "$file" "does not guard the stack"
  # The plugins call nothing that _FORTIFY_SOURCE replaces; the tool alone has containers to check.
  case $file in */adapters/*) continue ;; esac
  echo "$symbols" | grep -q "UND .*_chk@" || fail "$file" "is not fortified"
  case $file in *.so*) continue ;; esac
  echo "$symbols" | grep -q 'UND .*glibcxx_assert_fail' || fail "$file" "does not check containers"
done
echo "$checked files, $# of them hardened"
