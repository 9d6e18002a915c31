#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those that are missing.
set -euo pipefail
pkgs=(g++ cmake ninja-build pkg-config libgtest-dev libgmock-dev libbenchmark-dev
      libleveldb-dev libcli11-dev nlohmann-json3-dev clang-16 libfuzzer-16-dev libxxhash-dev)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  SUDO=""; [[ $(id -u) -ne 0 ]] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
