#!/usr/bin/env bash
# The main job: builds the player and the engine model and plays the
# built-in "Test" pattern on the model. With arguments, runs the player
# with them instead.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j"$(nproc)" --target qora_player
if [ $# -eq 0 ]; then
  set -- -f Test
fi
exec build/qora_player "$@"
