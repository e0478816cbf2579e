#!/usr/bin/env bash
# Checks an installed qora_ut: the layout; the engine model's wrapper; the
# CMake package and the pkg-config file (a consumer program built each way
# calls execute_pattern); that the manual page and the bash completion know
# every option of the usage text; and the report tool on a run.
# tools/install-test.sh runs it on an install under a scratch prefix,
# tools/package-test.sh in the clean root where the Debian packages are
# installed.
# Usage: tools/check-install.sh <prefix> <libdir> <version> <scratch dir>
# A LD_LIBRARY_PATH set by the caller stands in for the default library path.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
prefix=$1 libdir=$2 version=$3 work=$4
model=$prefix/$libdir/qora_ut/engine-model
libpath=${LD_LIBRARY_PATH:-}
fail() { echo "install check: $*"; exit 1; }
rm -rf "$work" && mkdir -p "$work"

# (Manual pages may be compressed, as Debian installs them.)
for f in bin/qora_player{,_model} "$libdir"/libqora_ut.so{".$version",.3,} include/qora_ut/qora_test.h \
         "$libdir/cmake/qora_ut/qora_utConfig.cmake" "$libdir/pkgconfig/qora_ut.pc" \
         "$libdir"/qora_ut/engine-model/{libkvx_mdw.so.2,include/korvex.h,cmake/qora_utEngineModel.cmake} \
         share/man/man1/qora_player{,_model}.1 share/bash-completion/completions/qora_player{,_model} \
         bin/qora_report share/qora-report/qora_report/cli.py share/man/man1/qora_report.1 \
         bin/kvx_asm share/man/man1/kvx_asm.1; do
  test -e "$prefix/$f" || test -e "$prefix/$f.gz" || fail "missing in install: $f"
done
test ! -e "$prefix/$libdir/libkvx_mdw.so.2" || fail "engine model on the library path"
grep -qx "prefix=$prefix" "$prefix/$libdir/pkgconfig/qora_ut.pc" || fail "qora_ut.pc has another prefix"

# The player runs on the model through the wrapper, from any directory and
# through a symbolic link; without it the loader finds no middleware.
LD_LIBRARY_PATH=$model:$libpath "$prefix/bin/qora_player" -v | grep -qx "qora player version : $version"
"$prefix/bin/kvx_asm" --version | grep -qx "kvx_asm $version" || fail "kvx_asm --version is not $version"
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
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
test "$(pkg-config --modversion qora_ut)" = "$version" || fail "pkg-config gives another version"
# shellcheck disable=SC2046 # pkg-config's output is a list of words
cc -o "$work/consumer/qora_consumer_pc" "$src/tests/consumer/main.c" $(pkg-config --cflags --libs qora_ut)
for consumer in qora_consumer qora_consumer_pc; do
  LD_LIBRARY_PATH=$model:$prefix/$libdir "$work/consumer/$consumer" | grep -qx "qora player version : $version" ||
    fail "$consumer did not print the version"
done

# Every option of the usage text is described in the manual page and
# completed by the bash completion, and neither names an option the player
# does not have.
options() { grep -oE -- '(^|[ "'"'"'])--?[a-zA-Z][a-z_0-9]*' | tr -d " \"'" | sort -u; }
usage_opts=$(LD_LIBRARY_PATH=$model:$libpath "$prefix/bin/qora_player" -h | options)
test "$(echo "$usage_opts" | wc -l)" -ge 39 || fail "usage text lists too few options: $usage_opts"
# The tags of the OPTIONS section's paragraphs, and the completion's list.
man_opts=$(zcat -f "$prefix"/share/man/man1/qora_player.1* |
           sed -n '/^\.SH OPTIONS/,/^\.SH /{/^\.TP/{n;s/\\-/-/g;p}}' | options)
comp_opts=$(perl -0ne "print \$1 if /compgen -W '(-f[^']*)'/" \
                 "$prefix/share/bash-completion/completions/qora_player" | tr '\n' ' ' | options)
for doc in "manual page:$man_opts" "bash completion:$comp_opts"; do
  test "${doc#*:}" = "$usage_opts" || fail "${doc%%:*} options differ from the usage text:" \
    "$(diff <(echo "$usage_opts") <(echo "${doc#*:}") | grep '^[<>]' | tr '\n' ' ')"
done
# The report tool reads a run of the installed player, from any directory,
# and leaves no compiled modules behind in its package's directory.
(cd "$work" && "$prefix/bin/qora_player_model" -f Test -l 2 -d 5 >board.log &&
  "$prefix/bin/qora_report" summary board.log --junit junit.xml >/dev/null &&
  "$prefix/bin/qora_report" plot board.log -o charts >/dev/null) || fail "qora_report failed on a run of the player"
grep -q 'tests="2" failures="0" errors="0"' "$work/junit.xml" || fail "qora_report: unexpected JUnit $(cat "$work/junit.xml")"
test -s "$work/charts/timings.png" || fail "qora_report plot wrote no timings.png"
test -z "$(find "$prefix/share/qora-report" -name __pycache__)" || fail "qora_report wrote compiled modules"
echo "install check: passed"
