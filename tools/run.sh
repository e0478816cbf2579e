#!/usr/bin/env bash
# The main job: builds the player, the engine model and the authoring tool,
# writes the sample convolution pattern and plays it on the engine model.
# With arguments, runs the player with them instead.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j"$(nproc)" --target qora_player qora_pattern_author
if [ $# -gt 0 ]; then
  exec build/qora_player "$@"
fi
build/qora_pattern_author build/examples
exec build/qora_player -f build/examples/conv_demo/pattern.hex -g build/examples/conv_demo/golden.hex -d 5
