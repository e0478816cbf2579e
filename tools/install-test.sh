#!/usr/bin/env bash
# Checks the install layout; the engine model's wrapper; the CMake package and
# the pkg-config file (a consumer program built each way calls
# execute_pattern); that the manual page and the bash completion know every
# option of the usage text; and a build against a vendor SDK (here: our
# installed engine model standing in for one). The Debian packages are
# checked by tools/package-test.sh.
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
for f in bin/qora_player bin/qora_player_model "$libdir/libqora_ut.so.$version" \
         "$libdir/libqora_ut.so.3" "$libdir/libqora_ut.so" include/qora_ut/qora_test.h \
         "$libdir/cmake/qora_ut/qora_utConfig.cmake" "$libdir/pkgconfig/qora_ut.pc" \
         "$libdir/qora_ut/engine-model/libkvx_mdw.so.2" \
         "$libdir/qora_ut/engine-model/include/korvex.h" \
         "$libdir/qora_ut/engine-model/cmake/qora_utEngineModel.cmake" \
         share/man/man1/qora_player.1 share/man/man1/qora_player_model.1 \
         share/bash-completion/completions/qora_player \
         share/bash-completion/completions/qora_player_model; do
  test -e "$prefix/$f" || fail "missing in install: $f"
done
test ! -e "$prefix/$libdir/libkvx_mdw.so.2" || fail "engine model on the library path"
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
grep -qx "prefix=$prefix" "$prefix/$libdir/pkgconfig/qora_ut.pc" || fail "qora_ut.pc has another prefix"

# The player runs on the model through the wrapper, from any directory and
# through a symbolic link; without it the loader finds no middleware.
LD_LIBRARY_PATH=$model:$libpath "$prefix/bin/qora_player" -v | grep -qx "qora player version : $version"
ln -s "$prefix/bin/qora_player_model" "$work/player-link"
(cd / && "$work/player-link" -f Test) | tail -1 | grep -q "Verify pattern 1 times : success" ||
  fail "qora_player_model -f Test did not verify"
if ! grep -q libkvx_mdw.so.2 <<<"$(ldconfig -p)"; then
  if "$prefix/bin/qora_player" -v >"$work/no-middleware" 2>&1; then
    fail "qora_player ran without any libkvx_mdw.so.2 on its path"
  fi
  grep -q "libkvx_mdw.so.2" "$work/no-middleware" || fail "qora_player failed, but not for the middleware"
fi

# A consumer program, built through the CMake package and through
# pkg-config. The linker checks libqora_ut.so.3's references through the
# installed model; at run time the model is put on the loader's path.
cmake -S "$src/tests/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH=$model:$prefix/$libdir "$work/consumer/qora_consumer" | grep -qx "qora player version : $version"
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
test "$(pkg-config --modversion qora_ut)" = "$version" || fail "pkg-config gives another version"
# shellcheck disable=SC2046 # pkg-config's output is a list of words
cc -o "$work/consumer/qora_consumer_pc" "$src/tests/consumer/main.c" $(pkg-config --cflags --libs qora_ut)
LD_LIBRARY_PATH=$model:$prefix/$libdir "$work/consumer/qora_consumer_pc" | grep -qx "qora player version : $version"
unset PKG_CONFIG_PATH

# Every option of the usage text is described in the manual page and
# completed by the bash completion, and neither names an option the player
# does not have.
options() { grep -oE -- '(^|[ "'"'"'])--?[a-zA-Z][a-z_0-9]*' | tr -d " \"'" | sort -u; }
usage_opts=$(LD_LIBRARY_PATH=$model:$libpath "$prefix/bin/qora_player" -h | options)
test "$(echo "$usage_opts" | wc -l)" -ge 39 || fail "usage text lists too few options: $usage_opts"
# The tags of the OPTIONS section's paragraphs, and the completion's list.
man_opts=$(sed -n '/^\.SH OPTIONS/,/^\.SH /{/^\.TP/{n;s/\\-/-/g;p}}' "$prefix/share/man/man1/qora_player.1" |
           options)
comp_opts=$(perl -0ne "print \$1 if /compgen -W '(-f[^']*)'/" \
                 "$prefix/share/bash-completion/completions/qora_player" | tr '\n' ' ' | options)
for doc in "manual page:$man_opts" "bash completion:$comp_opts"; do
  test "${doc#*:}" = "$usage_opts" || fail "${doc%%:*} options differ from the usage text:" \
    "$(diff <(echo "$usage_opts") <(echo "${doc#*:}") | grep '^[<>]' | tr '\n' ' ')"
done

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
