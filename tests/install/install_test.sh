#!/usr/bin/env bash
# Installs the build into a temporary prefix, then builds and runs a consumer of the
# installed package.
set -euo pipefail
build=$1 source=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
cmake -S "$source/tests/install/consumer" -B "$tmp/consumer" -G Ninja \
      -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
cmake --build "$tmp/consumer" >/dev/null
LD_LIBRARY_PATH="$tmp/prefix/lib" "$tmp/consumer/consumer" "$tmp/farm" | grep -q "exported 3 rows"
echo ok
