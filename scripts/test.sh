#!/usr/bin/env bash
# Sets up and builds VelvoxKit, then runs the whole test suite.
#   scripts/test.sh [--sanitize]   (the sanitizer build lives in build-sanitize/)
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=build
setup_args=()
if [ "${1:-}" = "--sanitize" ]; then
  build_dir=build-sanitize
  setup_args=(--sanitize)
fi
scripts/setup.sh --build-dir "$build_dir" "${setup_args[@]}"
cd "$build_dir"
ctest --output-on-failure -j2
