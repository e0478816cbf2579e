#!/usr/bin/env bash
# Installs the build under a scratch prefix and checks it: nothing points
# back into the build tree, then tools/check-install.sh (layout, wrapper,
# CMake and pkg-config consumers, manual page and completion); and a build
# against a vendor SDK (here: our installed engine model standing in for
# one). The Debian packages are checked by tools/package-test.sh.
# Usage: tools/install-test.sh <configured build dir> <scratch dir> [version]
# The version (the project's, passed by the install_package test) defaults to
# the one the build's generated version header holds.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
work=$2
version=${3:-$(sed -n 's/^#define QORA_PLAYER_VERSION "\(.*\)"$/\1/p' "$build/generated/qora_version.h")}
test -n "$version" || { echo "no version given and none in $build/generated/qora_version.h"; exit 1; }
# lib, or lib/<multiarch> in a build configured for the prefix /usr.
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[A-Z]*=//p' "$build/CMakeCache.txt")
test -n "$libdir" || { echo "no CMAKE_INSTALL_LIBDIR in $build/CMakeCache.txt"; exit 1; }
rm -rf "$work" && mkdir -p "$work"
prefix=$work/prefix
model=$prefix/$libdir/qora_ut/engine-model
fail() { echo "install test: $*"; exit 1; }
# Installed programs find libqora_ut.so.3 through their RUNPATH, or, in a
# build for the Debian packages (no install RUNPATH), on the default library
# path, where the packages put it: here $libpath stands in for that.
libpath=
if grep -q '^CMAKE_SKIP_INSTALL_RPATH:BOOL=ON$' "$build/CMakeCache.txt"; then
  libpath=$prefix/$libdir
fi
export LD_LIBRARY_PATH=$libpath

# An install under another prefix than the configured one: nothing may point
# back into the build tree or to the configured prefix.
cmake --install "$build" --prefix "$prefix" >/dev/null
{ grep -rlI -e "$build" "$prefix" || true; } | while read -r f; do
  # (The scratch directory may lie inside the build tree.)
  if grep -q -e "$build" <<<"$(sed "s|$prefix||g" "$f")"; then
    fail "$f refers to the build tree"
  fi
done
for elf in "$prefix/bin/qora_player" "$prefix/$libdir/libqora_ut.so.$version" "$model/libkvx_mdw.so.2"; do
  if grep -E 'R(UN)?PATH' <<<"$(readelf -d "$elf")" | grep -q -e "$build"; then
    fail "$elf has a search path into the build tree"
  fi
done
"$src/tools/check-install.sh" "$prefix" "$libdir" "$version" "$work/check"

# A vendor SDK: the engine model is neither built nor installed.
sdk=$work/vendor-sdk
mkdir -p "$sdk/include" "$sdk/lib"
cp "$model/include/korvex.h" "$sdk/include/"
cp "$model/libkvx_mdw.so.2" "$sdk/lib/"
cmake -S "$src" -B "$work/vendor-build" -DKORVEX_SDK_DIR="$sdk" -DQORA_BUILD_TESTS=OFF \
      -DQORA_BUILD_BENCH=OFF >/dev/null
cmake --build "$work/vendor-build" -j"$(nproc)" >/dev/null
test ! -e "$work/vendor-build/korvex/libkvx_mdw.so.2" || fail "engine model built with a vendor SDK"
cmake --install "$work/vendor-build" --prefix "$work/vendor-prefix" >/dev/null
for f in "$libdir/qora_ut" bin/qora_player_model share/man/man1/qora_player_model.1; do
  test ! -e "$work/vendor-prefix/$f" || fail "engine model installed with a vendor SDK: $f"
done
# The vendor's library stands on the default library path (LD_LIBRARY_PATH
# here), for the linker and the loader alike.
vendor_path=$sdk/lib:$work/vendor-prefix/$libdir
LD_LIBRARY_PATH=$vendor_path "$work/vendor-prefix/bin/qora_player" -v | grep -qx "qora player version : $version"
cmake -S "$src/tests/consumer" -B "$work/vendor-consumer" -DCMAKE_PREFIX_PATH="$work/vendor-prefix" >/dev/null
LD_LIBRARY_PATH=$vendor_path cmake --build "$work/vendor-consumer" >/dev/null
LD_LIBRARY_PATH=$vendor_path "$work/vendor-consumer/qora_consumer" | grep -qx "qora player version : $version"
echo "install test: passed"
