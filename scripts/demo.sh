#!/usr/bin/env bash
# Installs what is missing, builds, and shows the tool at work.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh build
build/bin/kelvorn || true
