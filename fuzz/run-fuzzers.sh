#!/usr/bin/env bash
# Runs every fuzz target of a fuzzing build for a bounded time, one after
# the other, each on its seed corpus (fuzz/corpus/<target>/, read only)
# and on a working corpus of its own in the build tree, where the new
# inputs it finds go. A crash, a failed check, a leak or a hang of one
# target is saved as BUILD/findings/<target>-crash-... and fails the run,
# after every target has had its turn.
#   usage: fuzz/run-fuzzers.sh BUILD_DIR SECONDS_PER_TARGET [TARGET...]
set -uo pipefail
cd "$(dirname "$0")/.."

build=$1
seconds=$2
shift 2
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  # the list fuzz/CMakeLists.txt writes
  mapfile -t targets <"$build/fuzz/targets.txt"
fi

export ASAN_OPTIONS=abort_on_error=1:detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

failed=()
for t in "${targets[@]}"; do
  work=$build/corpus/$t
  findings=$build/findings
  mkdir -p "$work" "$findings"
  echo "fuzz: $t for ${seconds}s"
  if ! "$build/fuzz/$t" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
      -artifact_prefix="$findings/$t-" "$work" "fuzz/corpus/$t" >"$build/$t.log" 2>&1; then
    failed+=("$t")
    tail -n 60 "$build/$t.log" >&2
  fi
  grep -E '^stat::number_of_executed_units|^Done [0-9]+ runs' "$build/$t.log" | tail -n 1
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: findings in: ${failed[*]} (inputs under $build/findings/, logs $build/<target>.log)" >&2
  exit 1
fi
echo "fuzz: ${#targets[@]} targets, no finding"
