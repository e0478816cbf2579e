#!/usr/bin/env bash
# Cross-builds everything for AArch64 and runs the test suite and the
# built-in "Test" pattern under qemu-aarch64, and makes the arm64 package.
set -euo pipefail
cd "$(dirname "$0")/.."
QORA_CROSS=1 tools/install-deps.sh
cmake --preset aarch64
cmake --build --preset aarch64 -j"$(nproc)"
ctest --preset aarch64 -j"$(nproc)"
qemu-aarch64 -L /usr/aarch64-linux-gnu build-aarch64/qora_player -f Test | tail -1
(cd build-aarch64 && cpack -G DEB >/dev/null && ls qora-ut_*_arm64.deb)
