#!/usr/bin/env bash
# Checks that the C and C++ sources follow .clang-format (the generated
# built-in headers and the fuzz corpora excepted).
#   tools/check-format.sh [clang-format]
set -euo pipefail
cd "$(dirname "$0")/.."
format=${1:-clang-format}
find app bench fuzz inc korvex src tests tools \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) \
     -not -path 'inc/pattern/*' -not -path 'fuzz/corpus/*' -print0 |
  xargs -0 "$format" --dry-run -Werror
