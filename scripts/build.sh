#!/usr/bin/env bash
# Configures and builds one variant of the project into build/<variant>, every target or only the
# targets named after the variant.
#   scripts/build.sh release [target...]   optimised build with debug info (default)
#   scripts/build.sh asan           AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/build.sh tsan           ThreadSanitizer
# Warnings fail the build.
set -euo pipefail
cd "$(dirname "$0")/.."

variant=${1:-release}
shift || true
case "$variant" in
  release) flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  asan) flags=(-DCMAKE_BUILD_TYPE=Debug -DKLNETBASE_SANITIZE=address,undefined
               -DKLNETBASE_BUILD_BENCHMARKS=OFF) ;;
  tsan) flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DKLNETBASE_SANITIZE=thread
               -DKLNETBASE_BUILD_BENCHMARKS=OFF) ;;
  *) echo "usage: $0 [release|asan|tsan] [target...]" >&2; exit 2 ;;
esac

generator=()
command -v ninja >/dev/null && generator=(-G Ninja)
# ccache, where installed, shares compiled objects between variants' rebuilds and between
# checkouts (paths below the checkout are hashed relative to it).
if command -v ccache >/dev/null; then
  flags+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
  export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1
fi
if [[ ! -f "build/$variant/CMakeCache.txt" ]]; then
  cmake -S . -B "build/$variant" "${generator[@]}" -DKLNETBASE_WERROR=ON "${flags[@]}" >/dev/null
fi
targets=()
[[ $# -gt 0 ]] && targets=(--target "$@")
cmake --build "build/$variant" --parallel "$(nproc)" "${targets[@]}"
