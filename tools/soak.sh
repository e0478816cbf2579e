#!/usr/bin/env bash
# Soak run: plays the sample convolution pattern for N loops on the engine
# model and checks that memory stays flat: the peak resident size of the
# N-loop run is within 1 MiB of a 1,000-loop run's.
#   tools/soak.sh <build dir> [loops, default 100000]
set -euo pipefail
build=$(cd "$1" && pwd)
loops=${2:-100000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$build/qora_pattern_author" "$work"
peak_kb() {
  /usr/bin/time -f %M -o "$work/peak" "$build/qora_player" -f "$work/conv_demo/pattern.hex" \
    -g "$work/conv_demo/golden.hex" -l "$1" -d 0 >"$work/out"
  grep -q "Verify pattern $1 times : success" "$work/out"
  cat "$work/peak"
}
base=$(peak_kb 1000)
long=$(peak_kb "$loops")
echo "peak resident: $base kB after 1000 loops, $long kB after $loops loops"
test $((long - base)) -le 1024
