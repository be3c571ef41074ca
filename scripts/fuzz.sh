#!/usr/bin/env bash
# Fuzzes every parser of bytes that come from another process. Configures a clang build with
# libFuzzer, AddressSanitizer and UndefinedBehaviorSanitizer in build/fuzz, builds every fuzz
# target, and runs the targets one after the other, each for SECONDS on its working corpus
# build/fuzz/work/<target>/: the seed corpus (fuzz/corpus/<target>/) plus what earlier runs added,
# so that coverage builds up from run to run (--fresh starts again from the seeds). Prints per
# target the inputs executed, the inputs it added to its working corpus, and its findings; an
# input that crashed, leaked, hung or ran out of memory is kept in build/fuzz/findings/<target>/
# and libFuzzer's output in build/fuzz/logs/<target>.log.
#
#   scripts/fuzz.sh [--runs N] [--fresh] [SECONDS] [TARGET...]
#       SECONDS per target (default 60); --runs ends a target sooner, after N executions; all
#       targets unless some are named
#
# Exit status: 0 when no target found anything, 1 when one did, 2 for a bad command line.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
  awk 'NR > 1 && !/^#/ { exit } NR > 1 { sub(/^# ?/, ""); print }' "$0"
}

seconds=60
runs=-1
fresh=0
targets=()
while [[ $# -gt 0 ]]; do
  argument=$1
  shift
  case "$argument" in
    -h|--help) usage; exit 0 ;;
    --runs)
      if [[ ! "${1:-}" =~ ^[1-9][0-9]*$ ]]; then
        echo "fuzz.sh: --runs needs a positive number of executions" >&2; exit 2
      fi
      runs=$1
      shift
      ;;
    --fresh) fresh=1 ;;
    -*) echo "fuzz.sh: unknown option '$argument' (see --help)" >&2; exit 2 ;;
    *)
      if [[ "$argument" =~ ^[0-9]+$ ]]; then
        if [[ ${#targets[@]} -gt 0 || "$argument" -eq 0 ]]; then
          echo "fuzz.sh: SECONDS must be a positive number given before any TARGET" >&2; exit 2
        fi
        seconds=$argument
      elif [[ -f "fuzz/$argument.cpp" && "$argument" == *Fuzz ]]; then
        targets+=("$argument")
      else
        echo "fuzz.sh: no fuzz target '$argument' (see fuzz/*Fuzz.cpp)" >&2; exit 2
      fi
      ;;
  esac
done
if [[ ${#targets[@]} -eq 0 ]]; then
  for source in fuzz/*Fuzz.cpp; do
    targets+=("$(basename "$source" .cpp)")
  done
fi

scripts/setup.sh
build=build/fuzz
# Configured every time (quick when nothing changed), so that a build directory made with other
# options is brought in line. The programs stay configured because the render protocol's target
# needs their klRender library; only the fuzz targets and what they link are built.
[[ -f "$build/CMakeCache.txt" ]] ||
  echo "== configuring $build (clang, libFuzzer, address and undefined sanitizers)"
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKLNETBASE_FUZZ=ON -DKLNETBASE_SANITIZE=address,undefined -DKLNETBASE_WERROR=ON \
  -DBUILD_TESTING=OFF -DKLNETBASE_BUILD_APPS=ON -DKLNETBASE_BUILD_BENCHMARKS=OFF >/dev/null
echo "== building ${#targets[@]} fuzz target(s)"
cmake --build "$build" --parallel 2 --target "${targets[@]}"

mkdir -p "$build/logs" "$build/findings" "$build/work"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1}"
found=0
printf '%-28s %12s %8s %8s  %s\n' target executions seconds "new" findings
for target in "${targets[@]}"; do
  work="$build/work/$target"
  findings="$build/findings/$target"
  log="$build/logs/$target.log"
  [[ $fresh -eq 1 ]] && rm -rf "$work"
  mkdir -p "$work" "$findings"
  cp fuzz/corpus/"$target"/* "$work"/ 2>/dev/null || true
  echo "   fuzzing $target for ${seconds}s$([[ $runs -gt 0 ]] && echo " or $runs executions") ..." >&2
  before=$(find "$findings" -type f | wc -l)
  # Output of the code under test is dropped (-close_fd_mask); libFuzzer's own goes to the log.
  # -max_len keeps inputs small (a buffer's worth of frames); -timeout catches hangs well above
  # the longest wait in the code (2 s for a greeting).
  # The harness's own trouble (a loopback connection it could not make, say) goes to this file,
  # as the target's stderr is closed.
  harness="$build/logs/$target.harness"
  rm -f "$harness"
  status=0
  started=$SECONDS
  KLFUZZ_HARNESS_LOG="$harness" \
  "$build/bin/$target" -max_total_time="$seconds" -runs="$runs" -max_len=16384 -timeout=30 \
    -rss_limit_mb=4096 -print_final_stats=1 -close_fd_mask=3 \
    -artifact_prefix="$findings/" "$work" >"$log" 2>&1 || status=$?
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  added=$(sed -n 's/^stat::new_units_added: *//p' "$log" | tail -1)
  new_findings=$(( $(find "$findings" -type f | wc -l) - before ))
  summary="none"
  if [[ $status -ne 0 || $new_findings -gt 0 ]]; then
    found=1
    reason=$(head -1 "$harness" 2>/dev/null ||
      grep -m1 -E '^(==[0-9]+==ERROR|SUMMARY|.*runtime error|==[0-9]+== ERROR)' "$log" ||
      echo "exit status $status")
    summary="$new_findings input(s) in $findings: $reason"
  fi
  printf '%-28s %12s %8s %8s  %s\n' "$target" "${executions:-?}" $((SECONDS - started)) \
    "${added:-?}" "$summary"
done
exit $found
