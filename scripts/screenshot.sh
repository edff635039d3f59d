#!/usr/bin/env bash
# Renders velvox's HTML views from a fresh embedded sandbox and takes one
# screenshot of three of them side by side (the dashboard, a track with timed
# comments, a user) with headless Chromium: docs/velvox-views.png unless
# another file is named. The tests run it too, so the picture in the README
# cannot drift from what the views look like.
#
#   scripts/screenshot.sh [OUT.png]
#   VELVOX=path/to/velvox CHROMIUM=path/to/chromium scripts/screenshot.sh
#
# The views stay in $VELVOX_VIEWS_FOLDER when it is set (for the tests),
# else in a temporary folder that is removed.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
out="${1:-$root/docs/velvox-views.png}"
velvox="${VELVOX:-$root/build/bin/velvox}"
chromium="${CHROMIUM:-$(command -v chromium || command -v chromium-browser || true)}"
[ -x "$velvox" ] || { echo "screenshot.sh: no velvox at $velvox (build first)" >&2; exit 1; }
[ -n "$chromium" ] || { echo "screenshot.sh: Chromium is not installed (scripts/setup.sh installs it)" >&2; exit 1; }

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
views="${VELVOX_VIEWS_FOLDER:-$work/views}"
# velvox and the browser keep their state in the temporary folder, never in the user's.
export HOME="$work/home" XDG_DATA_HOME="$work/data" XDG_CACHE_HOME="$work/cache" XDG_CONFIG_HOME="$work/config"
unset VELVOX_BASE_URL VELVOX_TOKEN
mkdir -p "$HOME"

# One track played, so that the dashboard shows both states.
"$velvox" -q play 20000 >/dev/null
"$velvox" -q view dashboard --all -o "$views"

# A track whose waveform carries comments, and the user who uploaded it.
track="$(grep -l 'class="marker"' "$views"/track-*.html | head -1)"
user="$(grep -o 'href="user-[0-9]*\.html"' "$track" | head -1 | sed 's/href="//; s/"$//')"
[ -n "$track" ] && [ -n "$user" ] || { echo "screenshot.sh: no track with timed comments among the views" >&2; exit 1; }

cat > "$views/overview.html" <<HTML
<!DOCTYPE html>
<html><head><meta charset="utf-8"><style>
  body { margin: 0; background: #e8e8ec; display: flex; gap: 10px; padding: 10px; }
  .view { width: 420px; height: 600px; overflow: hidden; border: 1px solid #ccc; background: #fafafa; }
  iframe { width: 840px; height: 1200px; border: 0; transform: scale(0.5); transform-origin: 0 0; }
</style></head><body>
<div class="view"><iframe src="dashboard.html"></iframe></div>
<div class="view"><iframe src="$(basename "$track")"></iframe></div>
<div class="view"><iframe src="$user"></iframe></div>
</body></html>
HTML

"$chromium" --headless --no-sandbox --disable-gpu --disable-dev-shm-usage --no-first-run --user-data-dir="$work/browser" \
  --hide-scrollbars --virtual-time-budget=3000 --window-size=1296,622 --screenshot="$out" "file://$views/overview.html" >/dev/null 2>&1
[ -s "$out" ] || { echo "screenshot.sh: Chromium wrote no screenshot" >&2; exit 1; }
echo "Wrote $out ($(wc -c < "$out") bytes)"
