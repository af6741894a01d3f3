#!/bin/sh
# Installs the build into an empty prefix, then builds and runs the example against the
# installed tree, once through the CMake package and once through pkg-config.
# usage: install_tree.sh CMAKE BUILD_DIR SOURCE_DIR CC GENERATOR
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$1" --install "$2" --prefix "$work/prefix" > "$work/log"
"$(dirname "$0")/elf_flags.sh" readelf "$work/prefix"
head -c 64000 /dev/zero > "$work/silence.raw"

"$1" -G "$5" -S "$3/examples" -B "$work/example" -DCMAKE_PREFIX_PATH="$work/prefix" > "$work/log"
"$1" --build "$work/example" > "$work/log"

pc=$(dirname "$(find "$work/prefix" -name speechenhance.pc)")
flags=$(PKG_CONFIG_PATH=$pc pkg-config --cflags --libs speechenhance)
# shellcheck disable=SC2086
"$4" -std=c99 -Wall -Wextra -Werror "$3/examples/embed.c" $flags -o "$work/embed_pkgconfig"

for program in "$work/example/embed" "$work/embed_pkgconfig"; do
  LD_LIBRARY_PATH=$(dirname "$pc") "$program" "$work/silence.raw" "$work/out.raw" > "$work/lines"
  test "$(wc -c < "$work/out.raw")" -eq 32000
  grep -q '^Static mem: ' "$work/lines"
done

# The library for audio hosts, where it was built: nothing is printed.
if [ -f "$pc/speechenhance-stream.pc" ]; then
  flags=$(PKG_CONFIG_PATH=$pc pkg-config --cflags --libs speechenhance-stream)
  # shellcheck disable=SC2086
  "$4" -std=c99 -Wall -Wextra -Werror "$3/examples/stream.c" $flags -o "$work/stream_pkgconfig"
  for program in "$work/example/stream" "$work/stream_pkgconfig"; do
    LD_LIBRARY_PATH=$(dirname "$pc") "$program" "$work/silence.raw" "$work/out.raw" > "$work/lines" 2>&1
    test "$(wc -c < "$work/out.raw")" -eq 32000
    test ! -s "$work/lines"
  done
fi
echo "installed tree builds through CMake and pkg-config"
