#!/usr/bin/env bash
# Runs every fuzzing harness of a build-fuzz tree for FUZZ_SECONDS each (60
# by default) and fails when any of them finds something. New inputs go to
# <build>/fuzz-corpus/<harness>, findings to <build>/fuzz-findings/<harness>;
# the committed seed corpus in fuzz/corpus is only read.
#   scripts/run-fuzz.sh [build-dir] [harness...]
set -uo pipefail

build=${1:-build-fuzz}
shift || true
seconds=${FUZZ_SECONDS:-60}
source_dir=$(cd "$(dirname "$0")/.." && pwd)
if [[ $# -gt 0 ]]; then
  harnesses=("$@")
else
  mapfile -t harnesses < <(grep -v '^$' "$build/fuzzers.txt")
fi

# The SSL harnesses take the driver stand-in, not the Linux library that the
# build tree also holds.
export NORVI_LIBRARY
NORVI_LIBRARY="$(cd "$build" && pwd)/standin/libnorvi.so"

failed=()
for harness in "${harnesses[@]}"; do
  work="$build/fuzz-corpus/$harness"
  findings="$build/fuzz-findings/$harness"
  mkdir -p "$work" "$findings"
  log="$findings/run.log"
  echo "fuzz: $harness for ${seconds}s"
  TZ=UTC "$build/$harness" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$findings/" "$work" "$source_dir/fuzz/corpus/$harness" >"$log" 2>&1
  status=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  echo "fuzz: $harness: ${runs:-?} executions, exit status $status"
  if [[ $status -ne 0 ]]; then
    failed+=("$harness")
    tail -n 40 "$log" >&2
  fi
done

if [[ ${#failed[@]} -gt 0 ]]; then
  echo "fuzz: findings in ${failed[*]} (inputs in $build/fuzz-findings)" >&2
  exit 1
fi
