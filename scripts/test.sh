#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test three times: in the
# plain build (GCC, RelWithDebInfo), under AddressSanitizer and
# UndefinedBehaviorSanitizer, and in a Clang Release build (assertions off);
# then fuzzes every parser of outside input with libFuzzer, 30 s each.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh build
(cd build && ctest -j2 --output-on-failure)
scripts/build.sh build-asan -DKELVORN_SANITIZE=ON
(cd build-asan && ASAN_OPTIONS=detect_leaks=0 ctest -j2 --output-on-failure)
CC=clang CXX=clang++ scripts/build.sh build-clang-release -DCMAKE_BUILD_TYPE=Release
(cd build-clang-release && ctest -j2 --output-on-failure)
scripts/fuzz.sh 30
