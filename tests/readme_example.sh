#!/bin/sh
# The example in the README and the one that is built are the same.  usage: readme_example.sh SOURCE_DIR
set -eu
awk '/^```c$/ {on = 1; next} /^```$/ {on = 0} on' "$1/README.md" | diff - "$1/examples/embed.c"
