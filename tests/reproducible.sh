#!/bin/sh
# The libraries and the tool are the same bytes, wherever their sources lie and are built: builds copies of
# the sources in another folder and compares.  usage: reproducible.sh SOURCE_DIR BUILD_DIR CMAKE_ARGUMENTS...
set -eu
source=$1 build=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export CCACHE_DISABLE=1  # a compiler cache would hide what it is about
mkdir -p "$work/a/rather/deep/folder"
copy=$work/a/rather/deep/folder
tar -C "$source" --exclude=./build* --exclude=./out --exclude=./.git -cf - . | tar -C "$copy" -xf -
{ cmake -S "$copy" -B "$copy/out" -DSE_BUILD_TESTS=OFF "$@" &&
  cmake --build "$copy/out" --target speechenhance speechenhance_stream speech-enhance; } > "$work/log" 2>&1 ||
  { tail -40 "$work/log"; exit 1; }
for file in src/libspeechenhance.so.1 stream/libspeechenhance-stream.so.1 tools/speech-enhance/speech-enhance; do
  cmp "$build/$file" "$copy/out/$file"
done
echo "libraries and tool are the same bytes in another folder"
