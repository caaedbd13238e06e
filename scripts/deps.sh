#!/usr/bin/env bash
# Installs what building and testing need, from Debian's packages, when it is
# missing. Needs root (apt-get).
set -euo pipefail
pkgs=(cmake ninja-build g++ libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev util-linux openocd openfpgaloader)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${missing[@]}" >/dev/null
fi
