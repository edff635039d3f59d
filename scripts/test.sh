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
ctest --output-on-failure -j2
