#!/bin/sh
# Builds the library as a guest of another project, without a build type, once as a subdirectory and once
# fetched, and runs the example that the host links.  usage: guest.sh CMAKE SOURCE_DIR GENERATOR
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
launcher=""
command -v ccache > /dev/null && launcher="-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"
head -c 64000 /dev/zero > "$work/silence.raw"
for fetched in OFF ON; do
  "$1" -G "$3" -S "$2/tests/guest" -B "$work/$fetched" -DGUEST_SOURCE="$2" -DGUEST_FETCHED=$fetched $launcher > "$work/log"
  "$1" --build "$work/$fetched" --target embed > "$work/log" || { cat "$work/log"; exit 1; }
  "$work/$fetched/embed" "$work/silence.raw" "$work/out.raw" > "$work/lines"
  test "$(wc -c < "$work/out.raw")" -eq 32000
done
