#!/usr/bin/env bash
# Builds one configuration and runs its tests: default (optimised), asan (AddressSanitizer +
# UndefinedBehaviorSanitizer) or tsan (ThreadSanitizer, the tests labelled "tsan").
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-default}
scripts/deps.sh
cmake --preset "$preset" >/dev/null
if [[ $preset == tsan ]]; then
  # ThreadSanitizer runs the tests labelled "tsan": the kernel (its scans and its reclaimer
  # thread), the queue and the writers on it.
  cmake --build --preset tsan --target host_tests queue_tests writers_tests
else
  cmake --build --preset "$preset"
fi
ctest --preset "$preset" -j"$(nproc)"
