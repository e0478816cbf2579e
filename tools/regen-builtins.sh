#!/usr/bin/env bash
# Regenerates the built-in pattern headers inc/pattern/*.h: the authoring
# tool writes their sources, the player's own header generator converts them.
#   tools/regen-builtins.sh <build dir>          rewrite the headers
#   tools/regen-builtins.sh <build dir> --check  fail when they differ
# Under an emulator, set QORA_EMULATOR (e.g. "qemu-aarch64 -L /usr/aarch64-linux-gnu").
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
emu=${QORA_EMULATOR:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
$emu "$build/qora_pattern_author" "$work"
cd "$work"
$emu "$build/qora_player" --gen conv2d_uint8 -f conv2d_uint8/pattern.hex -g conv2d_uint8/golden.bin >/dev/null
$emu "$build/qora_player" --gen max_pwr4_pi_test -f max_pwr4_pi_test/pattern.hex \
  -g max_pwr4_pi_test/cmodel_output.hex >/dev/null
for h in conv2d_uint8.h max_pwr4_pi_test.h; do
  if [ "${2:-}" = --check ]; then
    cmp "$h" "$src/inc/pattern/$h" || { echo "inc/pattern/$h differs from its sources"; exit 1; }
  else
    cp "$h" "$src/inc/pattern/$h"
  fi
done
