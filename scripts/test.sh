#!/usr/bin/env bash
# Sets up the machine, then builds and runs the tests three times: every test in the optimised
# build and under AddressSanitizer + UndefinedBehaviorSanitizer, and the tests of the threaded
# stages (label "threaded") under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

jobs=$(nproc)
for variant in release asan tsan; do
  echo "== $variant build"
  scripts/build.sh "$variant"
  echo "== $variant tests"
  labels=()
  [[ $variant == tsan ]] && labels=(-L threaded)
  ctest --test-dir "build/$variant" --output-on-failure --parallel "$jobs" "${labels[@]}"
done
