#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine lacks to build, test and demo vekd.
# Quiet and quick when everything is already there.
set -euo pipefail

packages=(
  build-essential cmake g++ clang libclang-rt-14-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  android-liblog-dev android-libutils-dev android-libcutils-dev
  android-platform-frameworks-native-headers
  iptables iproute2 procps python3
  openssl
  g++-aarch64-linux-gnu g++-arm-linux-gnueabihf qemu-user
)
# The ARM builds (arm64 and 32-bit armhf) link Debian's libraries of those
# architectures, installed side by side with the host's (multiarch).
cross_arches=(arm64 armhf)
for arch in "${cross_arches[@]}"; do
  packages+=(android-liblog-dev:$arch android-libutils-dev:$arch android-libcutils-dev:$arch
             libgtest-dev:$arch libgmock-dev:$arch)
done
for arch in "${cross_arches[@]}"; do
  dpkg --print-foreign-architectures | grep -qx "$arch" || dpkg --add-architecture "$arch"
done

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
export DEBIAN_FRONTEND=noninteractive

if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  # An index of one architecture that fails to download (a mirror in the
  # middle of a sync) must not stop the install: apt says so and uses the
  # last good one.
  apt-get update -qq || true
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The platform's libbacktrace (pulled in by libutils) needs p7zip's plugin
# 7z.so, which Debian installs for the host's architecture only. The ARM
# builds take each architecture's copy from its package, unpacked into
# /usr/local/lib/vekd-cross/<triplet> (the toolchain files look there).
for pair in arm64:aarch64-linux-gnu armhf:arm-linux-gnueabihf; do
  arch=${pair%%:*} triplet=${pair#*:}
  dest=/usr/local/lib/vekd-cross/$triplet
  [ -f "$dest/7z.so" ] && continue
  tmp=$(mktemp -d)
  chmod 755 "$tmp"
  (cd "$tmp" && apt-get download -qq "p7zip-full:$arch" >/dev/null 2>&1) || true
  deb=$(ls "$tmp"/p7zip-full_*_"$arch".deb 2>/dev/null | head -n1 || true)
  if [ -z "$deb" ]; then
    echo "install-deps: cannot download p7zip-full:$arch" >&2
    rm -rf "$tmp"
    exit 1
  fi
  dpkg-deb -x "$deb" "$tmp/x"
  install -D -m 644 "$tmp/x/usr/lib/p7zip/7z.so" "$dest/7z.so"
  rm -rf "$tmp"
done
