#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test three times: in the
# plain build (GCC, RelWithDebInfo), under AddressSanitizer,
# UndefinedBehaviorSanitizer and LeakSanitizer, and in a Clang Release build
# (assertions off); runs libkelvorn's threads test under ThreadSanitizer
# (that library and that program only); then fuzzes every parser of outside
# input with libFuzzer, 30 s each.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh build
(cd build && ctest -j2 --output-on-failure)
scripts/build.sh build-asan -DKELVORN_SANITIZE=ON
# Leaks too: tests/lsan.supp names only what is kept for the life of the process by design.
# The end-to-end runs see a /tmp of their own, where a clone may lie: the
# suppressions go where they see them.
supp=$(mktemp /var/tmp/kelvorn-lsan.XXXXXX)
trap 'rm -f "$supp"' EXIT
cp tests/lsan.supp "$supp"
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 LSAN_OPTIONS="suppressions=$supp:print_suppressions=0" \
  ctest -j2 --output-on-failure)
cmake -S . -B build-tsan -G Ninja -DKELVORN_TSAN=ON >/dev/null
ninja -C build-tsan libkelvorn_threads_test
(cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest -R '^libkelvorn_threads_test$' --output-on-failure)
CC=clang CXX=clang++ scripts/build.sh build-clang-release -DCMAKE_BUILD_TYPE=Release
(cd build-clang-release && ctest -j2 --output-on-failure)
scripts/fuzz.sh 30
