#!/usr/bin/env bash
# Checks the install layout, the CMake package (a consumer project finds it
# and calls execute_pattern), the Debian package, and a build against a
# vendor SDK (here: our installed engine model standing in for one).
# Usage: tools/install-test.sh <configured build dir> <scratch dir> [version]
# The version (the project's, passed by the install_package test) defaults to
# the one the build's generated version header holds.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
work=$2
version=${3:-$(sed -n 's/^#define QORA_PLAYER_VERSION "\(.*\)"$/\1/p' "$build/generated/qora_version.h")}
test -n "$version" || { echo "no version given and none in $build/generated/qora_version.h"; exit 1; }
rm -rf "$work" && mkdir -p "$work"
prefix=$work/prefix
model=$prefix/lib/qora_ut/engine-model

cmake --install "$build" --prefix "$prefix" >/dev/null
for f in bin/qora_player lib/libqora_ut.so.$version lib/libqora_ut.so.3 include/qora_ut/qora_test.h \
         lib/cmake/qora_ut/qora_utConfig.cmake lib/qora_ut/engine-model/libkvx_mdw.so.2; do
  test -e "$prefix/$f" || { echo "missing in install: $f"; exit 1; }
done
LD_LIBRARY_PATH=$model "$prefix/bin/qora_player" -v | grep -qx "qora player version : $version"

cmake -S "$src/tests/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH=$model "$work/consumer/qora_consumer" | grep -qx "qora player version : $version"

(cd "$build" && cpack -G DEB -B "$work/deb" >/dev/null)
deb=$(ls "$work"/deb/qora-ut_${version}_*.deb)
dpkg-deb -c "$deb" > "$work/deb/contents.txt"
grep -q "lib/libqora_ut.so.$version" "$work/deb/contents.txt"

sdk=$work/vendor-sdk
mkdir -p "$sdk/include" "$sdk/lib"
cp "$model/include/korvex.h" "$sdk/include/"
cp "$model/libkvx_mdw.so.2" "$sdk/lib/"
cmake -S "$src" -B "$work/vendor-build" -DKORVEX_SDK_DIR="$sdk" -DQORA_BUILD_TESTS=OFF \
      -DQORA_BUILD_BENCH=OFF >/dev/null
cmake --build "$work/vendor-build" -j"$(nproc)" >/dev/null
test ! -e "$work/vendor-build/korvex/libkvx_mdw.so.2" || { echo "engine model built with a vendor SDK"; exit 1; }
cmake --install "$work/vendor-build" --prefix "$work/vendor-prefix" >/dev/null
test ! -e "$work/vendor-prefix/lib/qora_ut" || { echo "engine model installed with a vendor SDK"; exit 1; }
LD_LIBRARY_PATH=$sdk/lib "$work/vendor-prefix/bin/qora_player" -v | grep -qx "qora player version : $version"
echo "install test: passed"
