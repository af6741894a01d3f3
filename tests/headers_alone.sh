#!/bin/sh
# Every installed header compiles alone, the C ones as C99 too.  usage: headers_alone.sh CC CXX INCLUDE
set -eu
for header in "$3"/speechenhance/*.h; do
  name=speechenhance/$(basename "$header")
  echo "#include <$name>" | "$2" -std=c++17 -pedantic -Wall -Wextra -Werror -I"$3" -fsyntax-only -x c++ -
  echo "#include <$name>
typedef int not_empty;" | "$1" -std=c99 -pedantic -Wall -Wextra -Werror -I"$3" -fsyntax-only -x c -
done
