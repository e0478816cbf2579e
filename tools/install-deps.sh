#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when missing.
set -euo pipefail
packages=(cmake g++ make libgtest-dev libbenchmark-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"
fi
