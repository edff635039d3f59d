#!/usr/bin/env bash
# Builds the libFuzzer targets with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer (in build-fuzz/), then runs one of them.
#
#   scripts/fuzz.sh decoder|roundtrip|unarchiver|template|store [SECONDS] [extra libFuzzer flags...]
#
# The run starts from the seed corpus in Fuzz/corpus/<name>; new inputs go to
# build-fuzz/corpus-<name>. A crash, leak or sanitizer report stops it with a
# non-zero status and leaves the input as crash-* in the current folder.
set -euo pipefail
cd "$(dirname "$0")/.."
name=${1:?decoder, roundtrip, unarchiver, template or store}
seconds=${2:-600}
shift $(( $# >= 2 ? 2 : 1 ))
case "$name" in
  decoder) target=DecoderFuzzer ;;
  roundtrip) target=RoundTripFuzzer ;;
  unarchiver) target=UnarchiverFuzzer ;;
  template) target=TemplateFuzzer ;;
  store) target=StoreArchiveFuzzer ;;
  *) echo "unknown fuzzer: $name" >&2; exit 2 ;;
esac
scripts/setup.sh --build-dir build-fuzz --fuzzers
work=build-fuzz/corpus-$name
mkdir -p "$work"
exec build-fuzz/bin/$target -max_total_time="$seconds" -max_len=65536 -timeout=10 -rss_limit_mb=4096 \
  -print_final_stats=1 "$@" "$work" "Fuzz/corpus/$name" $([ "$name" = template ] && echo Resources/views)
