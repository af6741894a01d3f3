#!/bin/sh
# Installs the build into an empty prefix, then builds and runs the header's example against the
# installed tree, once through the CMake package and once through pkg-config.
# usage: install_tree.sh CMAKE BUILD_DIR SOURCE_DIR CC GENERATOR
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$1" --install "$2" --prefix "$work/prefix" > "$work/log"
head -c 64000 /dev/zero > "$work/silence.raw"

"$1" -G "$5" -S "$3/examples" -B "$work/example" -DCMAKE_PREFIX_PATH="$work/prefix" > "$work/log"
"$1" --build "$work/example" > "$work/log"

pc=$(dirname "$(find "$work/prefix" -name speechenhance.pc)")
# The file carries the prefix it was configured for; ours is elsewhere.
flags=$(PKG_CONFIG_PATH=$pc pkg-config --define-variable=prefix="$work/prefix" --cflags --libs speechenhance)
# shellcheck disable=SC2086
"$4" -std=c99 -Wall -Wextra -Werror "$3/examples/embed.c" $flags -o "$work/embed_pkgconfig"

for program in "$work/example/embed" "$work/embed_pkgconfig"; do
  LD_LIBRARY_PATH=$(dirname "$pc") "$program" < "$work/silence.raw" 2> "$work/out.raw" > "$work/lines"
  test "$(wc -c < "$work/out.raw")" -eq 32000
  grep -q '^Static mem: ' "$work/lines"
done
echo "installed tree builds through CMake and pkg-config"
