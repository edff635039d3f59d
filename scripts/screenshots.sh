#!/usr/bin/env bash
# Draws velvox-desktop's windows offscreen into PNGs (the README's pictures),
# against the embedded sandbox, with its data in a temporary folder. The
# tests run it too.
#
#   scripts/screenshots.sh [PROGRAM] [FOLDER]   (build/bin/velvox-desktop, docs)
set -euo pipefail
cd "$(dirname "$0")/.."
program=${1:-build/bin/velvox-desktop}
out=${2:-docs}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -m 700 "$work/runtime"
export QT_QPA_PLATFORM=offscreen HOME="$work" XDG_DATA_HOME="$work/data" XDG_CACHE_HOME="$work/cache" \
  XDG_CONFIG_HOME="$work/config" XDG_RUNTIME_DIR="$work/runtime"
unset VELVOX_BASE_URL VELVOX_TOKEN
timeout -k 5 120 "$program" --screenshot "$out/desktop-dashboard.png"
timeout -k 5 120 "$program" --screenshot "$out/desktop-track.png" --track 20005
timeout -k 5 120 "$program" --screenshot "$out/desktop-user.png" --user 1003
