#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz with clang (DEPOT_FUZZ=ON, ASan
# and UBSan) and runs each for a fixed number of runs over a working copy of
# its committed corpus. The runs are bounded by count only and use a fixed
# seed, so a CI run is repeatable. Exits non-zero when any target crashes,
# leaks, hangs or breaks one of its properties; the input that did it is kept
# under BUILD/findings.
#
#   scripts/fuzz.sh [BUILD]        (default build-fuzz)
#   FUZZ_RUNS_SCALE=10 scripts/fuzz.sh   ten times the runs of each target
#   FUZZ_SEED=N                    another seed (default 1)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=${1:-build-fuzz}
scale=${FUZZ_RUNS_SCALE:-1}
seed=${FUZZ_SEED:-1}

# target and its run count; the counts keep the whole step to a few minutes
# on two cores (the table and batch targets do file and trie work per run).
targets=(
  "fuzz_prefix_text 200000"
  "fuzz_record_text 100000"
  "fuzz_trienode_wire 200000"
  "fuzz_shared_table 20000"
  "fuzz_batch 20000"
)

echo "fuzz: building the targets with clang++-14 in $build"
cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DDEPOT_FUZZ=ON >/dev/null
cmake --build "$build" -j2 >"$build/fuzz-build.log" 2>&1 || {
  tail -n 40 "$build/fuzz-build.log"
  echo "fuzz: build failed (log: $build/fuzz-build.log)"
  exit 1
}

bin="$build/tests/fuzz"
rm -rf "$build/corpus" "$build/findings" "$build/logs"
mkdir -p "$build/corpus" "$build/findings" "$build/logs"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

passed=0
failed=0
for entry in "${targets[@]}"; do
  read -r target runs <<<"$entry"
  runs=$((runs * scale))
  work="$build/corpus/$target"
  mkdir -p "$work"
  cp "$root/tests/fuzz/corpus/$target/"* "$work/"
  # The table seeds are made afresh too, so that they follow the current
  # file format even when the committed ones have fallen behind.
  if [ "$target" = fuzz_shared_table ]; then
    "$bin/fuzz_table_seeds" "$work"
  fi
  log="$build/logs/$target.log"
  if "$bin/$target" -runs="$runs" -seed="$seed" -timeout=30 -rss_limit_mb=2048 \
      -artifact_prefix="$build/findings/$target-" "$work" >"$log" 2>&1; then
    done_runs=$(grep -o 'Done [0-9]* runs' "$log" | tail -n 1 | grep -o '[0-9]*' || true)
    echo "$target: ${done_runs:-?} runs, no crash"
    passed=$((passed + 1))
  else
    grep -v '^#[0-9]' "$log" | tail -n 60
    echo "$target: FAILED after $(grep -c '^#[0-9]' "$log" || true) progress lines (log: $log)"
    for f in "$build/findings/$target-"*; do
      [ -e "$f" ] || continue
      echo "  reproduce: $bin/$target $f"
      echo "  keep it as a regression input: cp $f tests/fuzz/corpus/$target/"
    done
    failed=$((failed + 1))
  fi
done

echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
