#!/usr/bin/env bash
# scripts/build.sh [DIR [cmake options...]]: configures and builds into DIR (default build).
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
shift || true
cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
ninja -C "$dir"
