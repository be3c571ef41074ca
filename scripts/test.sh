#!/usr/bin/env bash
# Sets up the machine, then builds and runs every test twice: in the optimised build and under
# AddressSanitizer + UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

jobs=$(nproc)
for variant in release asan; do
  echo "== $variant build"
  scripts/build.sh "$variant"
  echo "== $variant tests"
  ctest --test-dir "build/$variant" --output-on-failure --parallel "$jobs"
done
