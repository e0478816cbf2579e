#!/usr/bin/env bash
# The main job: builds the player and the engine model and plays the
# built-in "Test" pattern on the model. With arguments, runs the player
# with them instead. The player runs in the caller's directory, so relative
# pattern and golden paths and --dump_output files behave as with the
# installed player; the build's messages go to standard error, so standard
# output is the player's console alone.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
(
  cd "$src"
  tools/install-deps.sh
  cmake --preset default >/dev/null
  cmake --build --preset default -j"$(nproc)" --target qora_player
) >&2
if [ $# -eq 0 ]; then
  set -- -f Test
fi
exec "$src/build/qora_player" "$@"
