#!/usr/bin/env bash
# Cross-builds everything for AArch64 and runs the test suite and the
# built-in "Test" pattern under qemu-aarch64; then builds the arm64 Debian
# packages (dpkg-buildpackage -aarm64 -Pcross,nocheck) into
# build-aarch64/deb/ and plays the "Test" pattern with the player, library
# and engine model as packaged.
set -euo pipefail
cd "$(dirname "$0")/.."
QORA_CROSS=1 QORA_PACKAGE_DEPS=1 tools/install-deps.sh
cmake --preset aarch64
cmake --build --preset aarch64 -j"$(nproc)"
ctest --preset aarch64 -j"$(nproc)"
qemu-aarch64 -L /usr/aarch64-linux-gnu build-aarch64/qora_player -f Test | tail -1

deb=build-aarch64/deb
tools/package-test.sh build arm64 "$deb"
root=$deb/root
rm -rf "$root"
for p in "$deb"/*.deb; do
  case $p in *-dbgsym_*) ;; *) dpkg-deb -x "$p" "$root" ;; esac
done
lib=$PWD/$root/usr/lib/aarch64-linux-gnu
# As qora_player_model runs it (the wrapper itself cannot start an arm64
# program here): the model's directory first on the loader's path. The
# packaged player has no RUNPATH; the library's directory stands in for the
# default path.
LD_LIBRARY_PATH=$lib/qora_ut/engine-model:$lib qemu-aarch64 -L /usr/aarch64-linux-gnu \
  "$root/usr/bin/qora_player" -f Test | tail -1 | tee "$deb/play.txt"
grep -q "Verify pattern 1 times : success" "$deb/play.txt"
