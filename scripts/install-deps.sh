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
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
