#!/usr/bin/env bash
# Builds one configuration and runs its tests: default (optimised), asan (AddressSanitizer +
# UndefinedBehaviorSanitizer) or tsan (ThreadSanitizer, the tests labelled "tsan").
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-default}
scripts/deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset" -j"$(nproc)"
