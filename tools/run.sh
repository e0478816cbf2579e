#!/usr/bin/env bash
# Builds the player and runs it with the given options (default: -f Test).
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j"$(nproc)" --target qora_player
if [ $# -eq 0 ]; then set -- -f Test; fi
exec build/qora_player "$@"
