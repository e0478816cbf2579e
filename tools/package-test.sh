#!/usr/bin/env bash
# Packaging test: builds the Debian packages for the host (with the test
# suite) and for the boards (arm64), checks them with lintian (no error, no
# warning), installs the host's in a clean Debian root, checks the install
# there with tools/check-install.sh (layout, the built-in "Test" pattern on
# the engine model, a consumer program built against libqora-ut-dev through
# CMake and through pkg-config, manual page and completion options), and
# checks that removing and purging the packages leaves nothing behind.
#
#   tools/package-test.sh [work dir]          the whole test (default work
#                                             dir: build-packages/)
#   tools/package-test.sh build <arch> <dir>  only build the packages for
#                                             <arch> (amd64, arm64) into <dir>
#
# QORA_ARM64_PACKAGES=<dir> takes the arm64 packages from <dir> (as built by
# tools/cross-test.sh) instead of building them again.
# The clean root is debootstrapped once and kept as a tarball in
# QORA_PACKAGE_CACHE (default /var/cache/qora-package-test); later runs
# unpack it. Needs root (debootstrap, chroot).
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc)

# Builds the packages of this tree for one architecture into $2, from a copy
# of the tree (dpkg-buildpackage writes next to the tree it builds, and the
# checkout stays clean). The host build runs the test suite; a cross build
# cannot run it and uses the profiles cross and nocheck.
build_packages() {
  local arch=$1 out=$2 host opts=()
  host=$(dpkg --print-architecture)
  rm -rf "$out" && mkdir -p "$out/src"
  if [ -d "$src/.git" ]; then
    # Tracked and new files as they are in the work tree (not those deleted).
    (cd "$src" && git ls-files -z --cached --others --exclude-standard |
       while IFS= read -r -d '' f; do
         if [ -e "$f" ] || [ -L "$f" ]; then printf '%s\0' "$f"; fi
       done | xargs -0 cp --parents --no-dereference -t "$out/src")
  else
    tar -C "$src" --exclude='./build*' --exclude='./obj-*' -cf - . | tar -C "$out/src" -xf -
  fi
  local build_options="parallel=$jobs"
  if [ "$arch" = "$host" ]; then
    opts=(-us -uc)                        # source and binary packages
  else
    # shellcheck disable=SC2054 # the profiles are one comma-separated argument
    opts=(-a"$arch" -Pcross,nocheck -us -uc -b)
    build_options="nocheck $build_options"
  fi
  echo "building the $arch packages (log: $out/build.log)"
  if ! (cd "$out/src" && DEB_BUILD_OPTIONS=$build_options dpkg-buildpackage "${opts[@]}") \
       >"$out/build.log" 2>&1; then
    tail -40 "$out/build.log"
    echo "package test: the $arch build failed (log: $out/build.log)"
    return 1
  fi
  rm -rf "$out/src"
  ls "$out"/*.deb | sed 's|.*/|  |'
}

if [ "${1:-}" = build ]; then
  [ $# -eq 3 ] || { echo "usage: $0 build <arch> <out dir>"; exit 2; }
  build_packages "$2" "$3"
  exit
fi

work=${1:-$src/build-packages}
fail() { echo "package test: $*"; exit 1; }
test "$(id -u)" = 0 || fail "needs root (debootstrap, chroot)"
cross=1
if [ -n "${QORA_ARM64_PACKAGES:-}" ]; then cross=0; fi
QORA_PACKAGE_DEPS=1 QORA_CROSS=$cross "$src/tools/install-deps.sh"
mkdir -p "$work"
work=$(cd "$work" && pwd)
step_start=$SECONDS
step() { echo "== $* (at ${SECONDS}s)"; }

# The version is written once, in CMakeLists.txt; debian/changelog must
# carry the same.
version=$(sed -n 's/^project(qora_ut VERSION \([0-9.]*\).*/\1/p' "$src/CMakeLists.txt")
changelog_version=$(cd "$src" && dpkg-parsechangelog -S Version)
test -n "$version" || fail "no version in CMakeLists.txt"
test "$changelog_version" = "$version" ||
  fail "debian/changelog is at $changelog_version, CMakeLists.txt at $version: add a changelog entry"

host=$(dpkg --print-architecture)
step "build the $host packages"
build_packages "$host" "$work/$host"
arm64=$work/arm64
if [ -n "${QORA_ARM64_PACKAGES:-}" ]; then
  arm64=$(cd "$QORA_ARM64_PACKAGES" && pwd)
  ls "$arm64"/qora-ut_"${version}"_arm64.changes >/dev/null || fail "no arm64 packages of $version in $arm64"
elif [ "$host" != arm64 ]; then
  step "build the arm64 packages"
  build_packages arm64 "$arm64"
fi

# Lintian on the source and every binary package, debug symbols included.
# Informational and pedantic tags are shown; errors and warnings fail.
for changes in "$work/$host/qora-ut_${version}_$host.changes" "$arm64/qora-ut_${version}_arm64.changes"; do
  step "lintian $(basename "$changes")"
  rc=0
  lintian --display-info --pedantic --fail-on error,warning "$changes" >"$work/lintian.txt" 2>&1 || rc=$?
  # (Lintian's own notes on running as root, and on the malformed ELF files
  # of the fuzz corpora, are left out.)
  grep -v -e '^running with root privileges' -e 'Warning while running readelf on *fuzz/corpus/' \
    "$work/lintian.txt" || true
  test "$rc" = 0 || fail "lintian: errors or warnings in $changes"
done

# The manual pages render without a warning at the usual widths.
for page in "$src"/docs/qora_player.1 "$src"/docs/qora_player_model.1 "$src"/docs/qora_report.1; do
  for width in 80 120; do
    out=$(MANWIDTH=$width LC_ALL=C.UTF-8 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)
    test -z "$out" || fail "$(basename "$page") at width $width: $out"
  done
  out=$(groff -ww -man -Tutf8 "$page" 2>&1 >/dev/null)
  test -z "$out" || fail "$(basename "$page"): $out"
done

# A clean Debian root of the host's release, with what a consumer build
# needs, debootstrapped once and kept as a tarball.
. /etc/os-release
suite=${VERSION_CODENAME:?no VERSION_CODENAME in /etc/os-release}
# The mirror this machine's apt uses (deb822 or one-line sources).
mirror=${QORA_DEBIAN_MIRROR:-}
if [ -z "$mirror" ]; then
  mirror=$({ cat /etc/apt/sources.list.d/*.sources /etc/apt/sources.list 2>/dev/null || true; } |
           sed -n -e 's|^URIs: *\([^ ]*/debian\)/\{0,1\}$|\1|p' \
                  -e "s|^deb \(\[[^]]*\] \)\{0,1\}\([^ ]*/debian\)/\{0,1\} $suite .*|\2|p" | sed -n 1p)
fi
mirror=${mirror:-http://deb.debian.org/debian}
root_packages="cmake g++ make pkg-config bash-completion"
cache=${QORA_PACKAGE_CACHE:-/var/cache/qora-package-test}
base=$cache/$suite-$host-$(echo "$root_packages" | md5sum | cut -c1-8).tar
root=$(mktemp -d /tmp/qora-package-root.XXXXXX)
cleanup() {
  if mountpoint -q "$root/proc"; then umount "$root/proc"; fi
  rm -rf --one-file-system "$root"
}
trap cleanup EXIT
in_root() { chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 "$@"; }
# apt in the root: no terminal log (no /dev/pts there), downloads as root.
apt_options="-o Dpkg::Use-Pty=0 -o APT::Sandbox::User=root"
if [ ! -f "$base" ]; then
  step "debootstrap $suite ($mirror) into $base"
  mkdir -p "$cache"
  debootstrap --variant=minbase "$suite" "$root" "$mirror" >"$work/debootstrap.log" 2>&1 ||
    { tail -20 "$work/debootstrap.log"; fail "debootstrap failed"; }
  mount -t proc proc "$root/proc"
  # shellcheck disable=SC2086 # a list of package names
  in_root /bin/sh -c "apt-get $apt_options update -qq && DEBIAN_FRONTEND=noninteractive \
    apt-get $apt_options install -y -qq --no-install-recommends $root_packages && apt-get clean" \
    >>"$work/debootstrap.log" 2>&1 || { tail -20 "$work/debootstrap.log"; fail "could not install $root_packages in the clean root"; }
  umount "$root/proc"
  tar -C "$root" --numeric-owner -cf "$base.part" . && mv "$base.part" "$base"
else
  step "unpack the clean root $base"
  tar -C "$root" --numeric-owner -xf "$base"
fi
mount -t proc proc "$root/proc"

# What the root holds, outside the places that change by themselves (package
# lists, caches, logs, dpkg's own records) and the scratch directory.
snapshot() {
  in_root find / -xdev \( -path /proc -o -path /tmp -o -path /dev -o -path /run -o -path /var/cache \
    -o -path /var/lib/apt -o -path /var/lib/dpkg -o -path /var/log -o -path /root \) -prune -o -print |
    LC_ALL=C sort
}
snapshot >"$work/root-before.txt"

step "install the $host packages in the clean root"
mkdir -p "$root/tmp/debs"
cp "$work/$host"/*.deb "$root/tmp/debs/"
packages=$(for d in "$work/$host"/*.deb; do dpkg-deb -f "$d" Package; done | tr '\n' ' ')
# shellcheck disable=SC2086 # a list of file names
in_root /bin/sh -c "DEBIAN_FRONTEND=noninteractive apt-get $apt_options install -y -qq --no-install-recommends \
  $(cd "$work/$host" && ls ./*.deb | sed 's|^\./|/tmp/debs/|' | tr '\n' ' ') >/tmp/install.log 2>&1" ||
  { cat "$root/tmp/install.log"; fail "the packages did not install"; }

step "check the install: the Test pattern, consumers (CMake, pkg-config), options"
# The engine model is not on the default library path (so the check also
# runs the player without the wrapper, where it must find no middleware).
loader_cache=$(in_root ldconfig -p)
grep -q "libqora_ut.so.3 " <<<"$loader_cache" || fail "libqora_ut.so.3 is not in the loader's cache"
if grep -q "libkvx_mdw" <<<"$loader_cache"; then fail "the engine model is in the loader's cache"; fi
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
mkdir -p "$root/tmp/check/tools" "$root/tmp/check/tests"
cp "$src/tools/check-install.sh" "$root/tmp/check/tools/"
cp -r "$src/tests/consumer" "$root/tmp/check/tests/"
in_root /tmp/check/tools/check-install.sh /usr "lib/$multiarch" "$version" /tmp/check/work
in_root /bin/bash -c '. /usr/share/bash-completion/bash_completion
  for cmd in qora_player qora_player_model; do
    __load_completion $cmd || exit 1
    complete_line() {
      COMP_LINE=$1; COMP_POINT=${#1}; read -ra COMP_WORDS <<<"$1"; COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
      COMPREPLY=(); _qora_player; echo "${COMPREPLY[*]}"
    }
    [ "$(complete_line "$cmd --gen_u")" = --gen_use_dirname ] || exit 1
    [ "$(cd /tmp && complete_line "$cmd -f Te")" = Test ] || exit 1
  done' || fail "the bash completion of qora_player or qora_player_model does not work"

# The documents the manual pages refer to are installed where they say.
for doc in $(sed 's/\\-/-/g; s/\\%//g' "$src"/docs/qora_player.1 "$src"/docs/qora_player_model.1 "$src"/docs/qora_report.1 |
             grep -o '/usr/share/doc/[A-Za-z0-9._/-]*' | sort -u); do
  test -e "$root$doc" || fail "the manual pages refer to $doc, which no package installs"
done

step "remove and purge the packages"
status() {
  # shellcheck disable=SC2086 # a list of package names
  in_root dpkg-query -W -f '${db:Status-Abbrev} ${Package}\n' $packages 2>/dev/null || true
}
# shellcheck disable=SC2086
in_root dpkg --remove $packages >/dev/null
# Removed packages with configuration left ("rc") are purged.
purge=$(status | awk '$1 == "rc" { print $2 }')
# shellcheck disable=SC2086
if [ -n "$purge" ]; then in_root dpkg --purge $purge >/dev/null; fi
# What apt installed for them alone (qora-report's Python libraries) goes too.
in_root /bin/sh -c "DEBIAN_FRONTEND=noninteractive apt-get $apt_options autoremove --purge -y -qq >/dev/null"
left=$(status | grep -v '^un ' || true)
test -z "$left" || fail "packages still known to dpkg: $left"
rm -rf "$root/tmp/debs" "$root/tmp/check"
snapshot >"$work/root-after.txt"
diff "$work/root-before.txt" "$work/root-after.txt" ||
  fail "the root differs after purging (< before, > after)"

echo "package test: passed in $((SECONDS - step_start))s"
