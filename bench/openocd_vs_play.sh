#!/usr/bin/env bash
# TCK cycles a second for one SVF file on the same simulated board (a PEX
# 8600 switch, rotanMotub), played two ways: by OpenOCD's `svf` command
# through `kelvorn-sim serve --protocol remote-bitbang` on 127.0.0.1 (a
# free port the server picks and names), and by `kelvorn-sim play`. Then
# XVC shift throughput, over TCP and without the network (serve_bench).
# Needs Debian's openocd (0.12); not run in CI. Prints tables on stdout.
#
#   bench/openocd_vs_play.sh [BUILD_DIR]      (default: build)
#
# The file is kelvorn-vectors' erase, program and verify of a random image
# of KELVORN_BENCH_KIB KiB (default 1024), KELVORN_BENCH_TIMES times over
# (default 1). OpenOCD 0.12's remote_bitbang driver writes to a
# non-blocking socket and gives up when a write would block, so the
# programming of every row, which reads no TDO, goes out at once: the
# server gives the client's connection room for 32 MiB of symbols ahead of
# the pins, which a 1 MiB image (17 MB of symbols) fits.
set -euo pipefail

build=${1:-build}
sim=$build/bin/kelvorn-sim
vectors=$build/bin/kelvorn-vectors
serve_bench=$build/bin/serve_bench
kib=${KELVORN_BENCH_KIB:-1024}
times=${KELVORN_BENCH_TIMES:-1}
chain=0x0a5c7035:8:mem=2048x4096,0x1b4d2093:6  # room for 1 MiB: 2048 rows of 4096 bits
device=rotanMotub
address=0000:03:00.0

for tool in "$sim" "$vectors" "$serve_bench"; do
  [[ -x $tool ]] || { echo "openocd_vs_play.sh: $tool is not built (ninja -C $build kelvorn-sim kelvorn-vectors serve_bench)" >&2; exit 1; }
done
command -v openocd >/dev/null || { echo "openocd_vs_play.sh: openocd is not installed (apt-get install openocd)" >&2; exit 1; }
(( kib >= 1 && kib <= 1024 )) || { echo "openocd_vs_play.sh: KELVORN_BENCH_KIB must be 1 to 1024 (the device holds 1 MiB)" >&2; exit 1; }
(( times >= 1 )) || { echo "openocd_vs_play.sh: KELVORN_BENCH_TIMES must be 1 or more" >&2; exit 1; }

work=$(mktemp -d)
server=
cleanup() {
  if [[ -n $server ]]; then
    kill -TERM "$server" 2>/dev/null || true
    wait "$server" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# CPU seconds a running process has used so far.
cpu_of() {
  awk -v hz="$(getconf CLK_TCK)" '{ printf "%.2f", ($14 + $15) / hz }' "/proc/$1/stat"
}

# "reads R writes W tck-cycles C" from a --stats line in a file: "R W C".
stats_of() {
  sed -n 's/^sim stats: reads \([0-9]*\) writes \([0-9]*\) tck-cycles \([0-9]*\) contention [0-9]*$/\1 \2 \3/p' "$1"
}

# One row of the table: name, wall s, CPU s, "R W C".
row() {
  local name=$1 wall=$2 cpu=$3 reads writes cycles
  read -r reads writes cycles <<<"$4"
  awk -v n="$name" -v w="$wall" -v c="$cpu" -v r="$reads" -v wr="$writes" -v cy="$cycles" 'BEGIN {
    printf "| %-34s | %10d | %7.2f | %7.2f | %12.0f | %11.3f | %12.3f |\n", n, cy, w, c, cy / w, r / cy, wr / cy }'
}

head -c $((kib * 1024)) /dev/urandom >"$work/image.bin"
"$vectors" --chain "$chain" --svf "$work/once.svf" "$work/image.bin"
for _ in $(seq "$times"); do cat "$work/once.svf"; done >"$work/image.svf"

# kelvorn-play on the simulated board: the whole process (the file read
# and checked once, then played).
/usr/bin/time -f '%e %U %S' -o "$work/play.time" \
  "$sim" --chain "$chain" --stats play "$device" "$address" "$work/image.svf" >"$work/play.out" 2>"$work/play.err" || {
  echo "openocd_vs_play.sh: kelvorn-sim play failed:" >&2; cat "$work/play.out" "$work/play.err" >&2; exit 1; }
read -r play_wall play_user play_sys <"$work/play.time"

# OpenOCD's svf through the remote_bitbang server: the openocd process
# (connecting, checking the chain's IDCODEs, the file); CPU of both.
"$sim" --chain "$chain" --stats serve --listen 127.0.0.1:0 "$device" "$address" 2>"$work/serve.log" &
server=$!
for _ in $(seq 200); do
  grep -q 'listening on' "$work/serve.log" && break
  sleep 0.05
done
port=$(sed -n 's/.*listening on 127\.0\.0\.1:\([0-9]*\) .*/\1/p' "$work/serve.log")
[[ -n $port ]] || { echo "openocd_vs_play.sh: the server did not start:" >&2; cat "$work/serve.log" >&2; exit 1; }
server_cpu_before=$(cpu_of "$server")
/usr/bin/time -f '%e %U %S' -o "$work/openocd.time" \
  openocd -c "adapter driver remote_bitbang; remote_bitbang host 127.0.0.1; remote_bitbang port $port" \
          -c "jtag newtap c0 tap -irlen 8 -expected-id 0x0a5c7035; jtag newtap c1 tap -irlen 6 -expected-id 0x1b4d2093" \
          -c "init; svf -quiet $work/image.svf; shutdown" >"$work/openocd.log" 2>&1 || {
  echo "openocd_vs_play.sh: openocd's svf failed:" >&2; tail -5 "$work/openocd.log" >&2; exit 1; }
server_cpu=$(awk -v a="$server_cpu_before" -v b="$(cpu_of "$server")" 'BEGIN { print b - a }')
kill -TERM "$server"
wait "$server" || { echo "openocd_vs_play.sh: the server ended badly:" >&2; cat "$work/serve.log" >&2; exit 1; }
server=
read -r openocd_wall openocd_user openocd_sys <"$work/openocd.time"

echo "SVF: a $kib KiB image erased, programmed and verified $times times ($(stat -c %s "$work/image.svf") bytes)," \
  "on a simulated PEX 8600 ($device), chain $chain"
echo
echo "| run                                | TCK cycles |  wall s |   CPU s | TCK cycles/s | reads/cycle | writes/cycle |"
echo "| ---------------------------------- | ---------- | ------- | ------- | ------------ | ----------- | ------------ |"
row "kelvorn-sim play" "$play_wall" "$(awk -v u="$play_user" -v s="$play_sys" 'BEGIN { print u + s }')" \
  "$(stats_of "$work/play.err")"
row "openocd svf, remote_bitbang server" "$openocd_wall" \
  "$(awk -v u="$openocd_user" -v s="$openocd_sys" -v c="$server_cpu" 'BEGIN { print u + s + c }')" \
  "$(stats_of "$work/serve.log")"
echo
echo "kelvorn-play: $(sed 's/^kelvorn-play: [^:]*: //' "$work/play.out")"
echo "kelvorn-serve: $(grep ' done: ' "$work/serve.log" | sed 's/^kelvorn-serve: [^ ]* //')"
echo "CPU s: kelvorn-sim play's own; for openocd, its own ($(awk -v u="$openocd_user" -v s="$openocd_sys" \
  'BEGIN { print u + s }') s) and the server's ($server_cpu s). Wall s: the client process."

echo
echo "XVC shift throughput, PEX 8600 (rotanSeret), GbE and Pericom (serve_bench; TCP: wall clock, handler: CPU time):"
"$serve_bench" --benchmark_filter='XvcShift' 2>/dev/null
