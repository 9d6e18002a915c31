#!/usr/bin/env bash
# The main job: export the sample result into a fresh farm with qopci, then read it back.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target qopci
farm=${FARM:-build/example-farm}
rm -rf "$farm"
build/tools/qopci copy --farm "$farm" --manifest examples/trades.json --csv examples/trades.csv
build/tools/qopci inspect --farm "$farm" --limit 5
