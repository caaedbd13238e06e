#!/usr/bin/env bash
# scripts/fuzz.sh [SECONDS]: builds the fuzz targets with clang and libFuzzer
# (KELVORN_FUZZ: every object instrumented, AddressSanitizer and
# UndefinedBehaviorSanitizer on) into build-fuzz, and runs each for SECONDS
# (default 45), starting from its corpus and the inputs of crashes
# found before (tests/fuzz/corpus/<target>, tests/fuzz/regressions/<target>).
# What a run adds to the corpus stays in build-fuzz/corpus. A crash ends the
# script with status 1 and names the input that caused it
# (build-fuzz/artifacts/); fix the fault, then keep the input as
# tests/fuzz/regressions/<target>/<name>, which every build's ctest replays.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-45}
dir=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$dir" -G Ninja -DKELVORN_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
ninja -C "$dir" fuzz
mkdir -p "$dir/artifacts"
# Per target: the longest input tried. XVC's is short: a shift at the
# slowest clock a client may ask for is paced edge by edge.
declare -A max_len=([svf]=16384 [xsvf]=16384 [remote_bitbang]=4096 [xvc]=512 [pciaddress]=64 [bsdl]=65536 [netlist]=65536)
status=0
for t in svf xsvf remote_bitbang xvc pciaddress bsdl netlist; do
  corpus=$dir/corpus/$t
  mkdir -p "$corpus"
  inputs=(tests/fuzz/corpus/$t)
  [ -d tests/fuzz/regressions/$t ] && inputs+=(tests/fuzz/regressions/$t)
  echo "fuzz $t: $seconds s"
  if ! ASAN_OPTIONS=detect_leaks=0 "$dir/bin/fuzz_$t" -max_total_time="$seconds" -max_len="${max_len[$t]}" \
      -rss_limit_mb=2048 -timeout=30 -print_final_stats=1 -artifact_prefix="$dir/artifacts/$t-" \
      "$corpus" "${inputs[@]}" >"$dir/fuzz-$t.log" 2>&1; then
    status=1
    echo "fuzz $t: FAILED (log: $dir/fuzz-$t.log)"
    grep -E 'ERROR|SUMMARY|Test unit written' "$dir/fuzz-$t.log" | head -n 10 || true
    continue
  fi
  grep -E '^stat::number_of_executed_units|^stat::new_units_added' "$dir/fuzz-$t.log" | sed "s/^/fuzz $t: /" || true
done
exit $status
