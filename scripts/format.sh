#!/usr/bin/env bash
# Formats C++ sources with clang-format and the tree's .clang-format.
#
#   scripts/format.sh [REVISION]   the .h/.cpp files changed against REVISION (default HEAD),
#                                  untracked new ones included
#   scripts/format.sh --all        every .h/.cpp file under Sources, Apps, Tests, Benchmarks, Fuzz
#
# Only whole files are formatted; commit or stash first if you want to review the result
# as a diff of its own.
set -euo pipefail
cd "$(dirname "$0")/.."
folders=(Sources Apps Tests Benchmarks Fuzz)
patterns=()
for folder in "${folders[@]}"; do
  patterns+=("$folder/*.h" "$folder/*.cpp")
done

if [ "${1:-}" = "--all" ]; then
  list() { git ls-files -z -- "${patterns[@]}"; }
else
  revision=${1:-HEAD}
  git rev-parse --verify --quiet "$revision^{commit}" >/dev/null || { echo "format.sh: no such revision: $revision" >&2; exit 2; }
  list() {
    git diff -z --name-only --diff-filter=ACMR "$revision" -- "${patterns[@]}"
    git ls-files -z --others --exclude-standard -- "${patterns[@]}"
  }
fi

count=0
while IFS= read -r -d '' file; do
  [ -f "$file" ] || continue
  clang-format --style=file -i "$file"
  count=$((count + 1))
done < <(list)
echo "format.sh: $count file(s) formatted"
