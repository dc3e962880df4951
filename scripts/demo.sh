#!/usr/bin/env bash
# The main job: installs what is missing, builds, and runs the two-link
# testbed's slow-WLAN scenario (vekd steering real traffic between a shaped
# WLAN and WWAN link in network namespaces). Needs root. Options are passed to
# testbed/run.sh: --fast-wlan, --wlan-drop, --duration S, --help, ...
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "$(id -u)" != 0 ]; then
  echo "demo: run as root: the testbed creates network namespaces" >&2
  exit 2
fi
for a in "$@"; do
  case $a in -h|--help) exec testbed/run.sh --help ;; esac
done

scripts/install-deps.sh
scripts/build.sh normal

exec testbed/run.sh --bin build/bin "$@"
