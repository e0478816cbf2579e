#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when missing.
# QORA_CROSS=1 adds the AArch64 cross toolchain and qemu-user; QORA_FUZZ_DEPS=1
# adds clang and its sanitizer and libFuzzer runtimes.
set -euo pipefail
packages=(cmake g++ make libgtest-dev googletest libbenchmark-dev binutils-riscv64-unknown-elf time)
if [ "${QORA_CROSS:-0}" = 1 ]; then
  packages+=(g++-aarch64-linux-gnu qemu-user)
fi
if [ "${QORA_FUZZ_DEPS:-0}" = 1 ]; then
  packages+=(clang libclang-rt-14-dev)
fi
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"
fi
