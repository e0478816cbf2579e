#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when missing.
# QORA_CROSS=1 adds the AArch64 cross toolchain and qemu-user, and what
# dpkg-buildpackage needs to cross-build the arm64 packages (the arm64
# architecture, the target's C and C++ libraries); QORA_PACKAGE_DEPS=1 adds
# the Debian packaging tools (debhelper, lintian, debootstrap, man-db);
# QORA_FUZZ_DEPS=1 adds clang and its sanitizer and libFuzzer runtimes.
# QORA_LAVA_DEPS=1 adds, without recommended packages, the LAVA dispatcher
# (lava-run) and git for its test definitions, qemu-system for the emulated
# arm64 board, cpio for its ramdisk, and busybox for the LAVA run script's
# tests.
set -euo pipefail
packages=(cmake g++ make pkg-config clang-format libgtest-dev googletest libbenchmark-dev binutils-riscv64-unknown-elf time
          python3 python3-numpy python3-matplotlib python3-pytest python3-junitparser python3-hypothesis python3-yaml)
update=0
if [ "${QORA_CROSS:-0}" = 1 ]; then
  gcc_major=$(gcc -dumpversion 2>/dev/null | cut -d. -f1)
  packages+=(g++-aarch64-linux-gnu qemu-user crossbuild-essential-arm64 libc6-dev:arm64
             "libstdc++-${gcc_major:-12}-dev:arm64")
  if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    dpkg --add-architecture arm64
    update=1
  fi
fi
if [ "${QORA_PACKAGE_DEPS:-0}" = 1 ]; then
  packages+=(debhelper lintian debootstrap man-db groff-base)
fi
if [ "${QORA_FUZZ_DEPS:-0}" = 1 ]; then
  packages+=(clang libclang-rt-14-dev)
fi
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ] || [ $update = 1 ]; then
  echo "installing: ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"
fi
if [ "${QORA_LAVA_DEPS:-0}" = 1 ]; then
  lava_missing=()
  for p in lava-dispatcher git qemu-system-arm cpio busybox; do
    dpkg -s "$p" >/dev/null 2>&1 || lava_missing+=("$p")
  done
  if [ ${#lava_missing[@]} -gt 0 ]; then
    echo "installing: ${lava_missing[*]}"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${lava_missing[@]}"
  fi
fi
