#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test twice: in the plain
# build and under AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh build
(cd build && ctest -j2 --output-on-failure)
scripts/build.sh build-asan -DKELVORN_SANITIZE=ON
(cd build-asan && ASAN_OPTIONS=detect_leaks=0 ctest -j2 --output-on-failure)
