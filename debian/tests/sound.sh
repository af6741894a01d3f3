# Sound for the tests; sourced by them, with an empty folder as the current one.
export LC_ALL=C.UTF-8

# noise FILE RATE [SOX-FORMAT...]: three seconds of a steady noise.
noise() {
  file=$1 rate=$2
  shift 2
  sox -R -n -r "$rate" -b 16 "$@" "$file" synth 3 pinknoise vol 0.3
}

# level FILE: of the last second, RMS, in dB.
level() {
  sox "$1" -n trim -1 stats 2>&1 | awk '/^RMS lev dB/ { print $4 == "-inf" ? -200 : $4 }'
}

# quieter AFTER BEFORE: fails unless the noise is at least 15 dB down, and as long as before.
quieter() {
  [ -s "$1" ]
  after=$(level "$1") before=$(level "$2")
  echo "$1: $before dB before, $after dB after"
  awk "BEGIN { exit !($after < $before - 15) }"
}
