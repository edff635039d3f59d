#!/usr/bin/env bash
# Sets up and builds VelvoxKit if needed, then runs the velvox program with the given arguments.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh >&2
exec build/bin/velvox "$@"
