#!/usr/bin/env bash
# The main job: installs what is missing, builds, and runs vekd against a
# sample root directory, showing its log.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
scripts/build.sh normal

root=$(mktemp -d /tmp/vekd-demo-XXXXXX)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/data/vendor/vek" "$root/dev/__properties__"
cp samples/vekd.conf "$root/data/vendor/vek/vekd.conf"
echo 1 > "$root/dev/__properties__/vendor.vek.enabled"

echo "vekd with VEKD_ROOT=$root:"
VEKD_ROOT=$root build/bin/vekd
