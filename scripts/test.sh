#!/usr/bin/env bash
# Sets up and builds VelvoxKit, then runs the whole test suite.
#   scripts/test.sh [--sanitize]   (the sanitizer build lives in build-sanitize/)
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=build
setup_args=(--browser)
if [ "${1:-}" = "--sanitize" ]; then
  build_dir=build-sanitize
  setup_args=(--browser --sanitize)
fi
scripts/setup.sh --build-dir "$build_dir" "${setup_args[@]}"
cd "$build_dir"
if [ "$build_dir" = build-sanitize ]; then
  # The sanitizers make every stack frame several times larger; the tests of
  # the deepest documents the codec and the archiver accept (which fit a
  # normal 8 MB stack in the plain build) get a stack to match.
  ulimit -s 65536 2>/dev/null || true
fi
# Every test program runs with HOME and the XDG folders in a temporary folder;
# the person's own Velvox folders must come out of the run as they went in.
own_folders() {
  find "${XDG_DATA_HOME:-$HOME/.local/share}/Velvox" "${XDG_CACHE_HOME:-$HOME/.cache}/Velvox" \
    "${XDG_CONFIG_HOME:-$HOME/.config}/Velvox" -printf '%p %s %T@\n' 2>/dev/null | sort || true
}
before=$(own_folders)
status=0
ctest --output-on-failure -j2 || status=$?
if [ "$(own_folders)" != "$before" ]; then
  echo "test.sh: the tests changed the user's own Velvox folders (under \$HOME or the XDG folders)" >&2
  exit 1
fi
exit "$status"
