#!/usr/bin/env bash
# Builds one configuration and runs its tests: default (optimised), asan (AddressSanitizer +
# UndefinedBehaviorSanitizer), tsan (ThreadSanitizer, the tests labelled "tsan") or fuzz
# (the libFuzzer targets: each over its corpus once, then for a bounded time).
# Usage: scripts/test.sh [default|asan|tsan]   or   scripts/test.sh fuzz [SECONDS [TARGET...]]
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-default}

# The fuzz targets: each first over every input of its corpus once (what was found before
# must stay fixed), then for $seconds seconds on a scratch copy of the corpus, so that nothing
# new is written into the repository. Fails when a target crashes, printing the input.
run_fuzzers() {
  local seconds=$1
  shift
  local targets=("$@")
  ((${#targets[@]})) || targets=(csv_fuzz manifest_fuzz catalog_fuzz farm_open_fuzz strheap_fuzz reader_fuzz)
  local -A max_len=([csv_fuzz]=4096 [manifest_fuzz]=4096 [catalog_fuzz]=4096
                      [farm_open_fuzz]=2048 [strheap_fuzz]=8192 [reader_fuzz]=4096)
  local -A dict=([csv_fuzz]=csv [manifest_fuzz]=manifest [catalog_fuzz]=catalog
                   [farm_open_fuzz]=catalog)
  local t bin ok f opts passed failed farms=${TMPDIR:-/tmp}
  scratch=$(mktemp -d)  # global: the exit trap removes it
  trap 'rm -rf "$scratch"' EXIT
  # The farm targets make a farm per input under TMPDIR: a tmpfs makes them faster.
  [[ -z ${TMPDIR:-} && -d /dev/shm && -w /dev/shm ]] && farms=/dev/shm
  passed=0 failed=0
  for t in "${targets[@]}"; do
    bin=build-fuzz/fuzz/$t
    opts=(-rss_limit_mb=2048 -timeout=10 -max_len="${max_len[$t]:-4096}" -print_final_stats=1)
    [[ -n ${dict[$t]:-} ]] && opts+=(-dict=fuzz/dict/${dict[$t]}.dict)
    mkdir -p "$scratch/$t/corpus"
    cp fuzz/corpus/"$t"/* "$scratch/$t/corpus/"
    echo "=== $t: corpus, then ${seconds}s"
    ok=1
    if ! TMPDIR=$farms "$bin" "${opts[@]}" -artifact_prefix="$scratch/$t/" fuzz/corpus/"$t"/* \
        >"$scratch/$t/regress.log" 2>&1; then
      ok=0; tail -n 40 "$scratch/$t/regress.log"
    elif ! TMPDIR=$farms "$bin" "${opts[@]}" -artifact_prefix="$scratch/$t/" -max_total_time="$seconds" \
        "$scratch/$t/corpus" >"$scratch/$t/fuzz.log" 2>&1; then
      ok=0; tail -n 60 "$scratch/$t/fuzz.log"
    else
      grep -E '^stat::(number_of_executed_units|new_units_added)|cov: .*ft:' "$scratch/$t/fuzz.log" |
        tail -n 3
    fi
    if ((ok)); then
      passed=$((passed + 1))
    else
      failed=$((failed + 1))
      for f in "$scratch/$t"/crash-* "$scratch/$t"/leak-* "$scratch/$t"/timeout-* \
               "$scratch/$t"/oom-*; do
        [[ -f $f ]] || continue
        echo "--- $t finding $(basename "$f"), $(stat -c %s "$f") bytes:"
        od -A d -c "$f" | head -n 40
      done
    fi
  done
  echo "fuzz: $passed passed, $failed failed"
  ((failed == 0))
}

scripts/deps.sh
cmake --preset "$preset" >/dev/null
if [[ $preset == fuzz ]]; then
  cmake --build --preset fuzz
  shift
  seconds=${1:-10}
  shift || true
  run_fuzzers "$seconds" "$@"
  exit
elif [[ $preset == tsan ]]; then
  # ThreadSanitizer runs the tests labelled "tsan": the kernel (its scans and its reclaimer
  # thread), the queue and the writers on it.
  cmake --build --preset tsan --target host_tests queue_tests writers_tests
else
  cmake --build --preset "$preset"
fi
ctest --preset "$preset" -j"$(nproc)"
