#!/usr/bin/env bash
# Sets up the machine, builds the project and runs the demo.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh release >/dev/null
exec build/release/bin/klNetDemo "$@"
