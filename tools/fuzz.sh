#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) and runs each one.
#   tools/fuzz.sh [seconds per target]   run each target that long (default 60)
#   tools/fuzz.sh replay                 replay the kept corpora, then 10 s each
#   tools/fuzz.sh 600 NAME...            build and run only the targets named
# Corpora (seeds and every input that once failed) live in fuzz/corpus/<target>/;
# new interesting inputs found by a run go to build-fuzz/corpus/<target>/.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:-60}
shift $(( $# > 0 ? 1 : 0 ))
QORA_FUZZ_DEPS=1 tools/install-deps.sh
cmake --preset fuzz >/dev/null
targets=("$@")
if [ ${#targets[@]} -gt 0 ]; then
  cmake --build --preset fuzz -j"$(nproc)" --target "${targets[@]}"
else
  cmake --build --preset fuzz -j"$(nproc)"
  targets=(build-fuzz/fuzz/*_fuzz)
fi
export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export LSAN_OPTIONS=suppressions=$PWD/tests/lsan.supp
for bin in "${targets[@]}"; do
  bin=build-fuzz/fuzz/$(basename "$bin")
  name=$(basename "$bin")
  seeds=fuzz/corpus/$name
  mkdir -p "$seeds" "build-fuzz/corpus/$name"
  opts=(-dict=fuzz/qora.dict -rss_limit_mb=4096 -timeout=20)
  if [ "$mode" = replay ]; then
    "$bin" "${opts[@]}" -runs=0 "$seeds"
    time=10
  else
    time=$mode
  fi
  echo "== $name: ${time}s"
  log=build-fuzz/$name.log
  if ! "$bin" "${opts[@]}" -max_total_time="$time" -print_final_stats=1 \
       "build-fuzz/corpus/$name" "$seeds" >"$log" 2>&1; then
    tail -40 "$log"
    exit 1
  fi
  grep -E '^Done|stat::number_of_executed_units' "$log"
done
