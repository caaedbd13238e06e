# kelvorn-play on the simulated board (kelvorn-sim play) with its file from
# wherever a user takes it: a regular file, /dev/stdin through a pipe, "-",
# and a FIFO give the same scans (the VCD byte for byte), the same memory
# and the same status; a mismatch and a syntax error from a pipe keep their
# status and line; a 17 MB SVF from a pipe programs the memory byte for
# byte. Timing values at the edge of their range are honoured or refused
# with one line, in the dry run as in the play. A signal in the middle of a
# play still leaves the stats line, the memory dump and a VCD that ends
# with the pins released. Input that never ends (yes, /dev/zero) stops
# with status 3 before the copy fills its file system; a file with nothing
# to play, or bytes after XCOMPLETE, is refused with status 4.
source "$(dirname "$0")/lib.sh" "$1"
ulimit -c 0  # SIGQUIT dumps no core here

ln -s /proc/self/fd/0 "$E2E_DIR/dev/stdin"
# The summary line with the file's name as F and its duration as T.
summary() {
  sed -E -e 's/^kelvorn-play: [^:]*: /kelvorn-play: F: /' -e 's/ at [0-9.]+ [kM]?Hz,/,/' -e 's/, [0-9]+\.[0-9]+ s(,|$)/, T s\1/' <<<"$1"
}
device=(rotanMotub 0000:04:00.0)  # the PEX 8600
sim() { e2e_run kelvorn-sim --chain "$chain" "$@"; }
# A VCD's changes without their times, each run of TCK edges with nothing
# else changing as one: an XSVF wait is microseconds as well as cycles, so
# how many cycles it takes depends on the machine's speed.
scans() { grep -v '^#' "$1" | awk '/^[01]C$/ { if (!run) print "C..."; run = 1; next } { run = 0; print }'; }

# ---- one play from four kinds of input ----

chain=0x0a5c7035:8,0x1b4d2093:6:mem=64x256,0x2468ace1:10
head -c 2048 /dev/urandom >"$d/image.bin"
expect_run 0 "" "" "vectors" kelvorn-vectors --chain "$chain" --svf "$d/image.svf" --xsvf "$d/image.xsvf" "$d/image.bin"
mkfifo "$d/fifo"
for f in svf xsvf; do
  cycles=cat
  [ $f = xsvf ] && cycles="sed -E s/[0-9]+.TCK.cycles/N_TCK_cycles/"
  play_from() {  # what name [stdin redirection...]
    local what=$1 name=$2
    shift 2
    expect_err 0 "" "$f from $what: status" sim --vcd "$d/$what.vcd" --dump-memory "$d/$what.mem" play "${device[@]}" "$name" "$@"
    expect_eq "$(summary "$E2E_OUT" | $cycles)" "$(summary "$ref" | $cycles)" "$f from $what: summary"
    expect_eq "$(cmp "$d/file.mem" "$d/$what.mem" && echo same)" same "$f from $what: the same memory"
    if [ $f = svf ]; then
      expect_eq "$(cmp "$d/file.vcd" "$d/$what.vcd" && echo same)" same "$f from $what: the same VCD"
    else
      expect_eq "$(cmp <(scans "$d/file.vcd") <(scans "$d/$what.vcd") && echo same)" same "$f from $what: the same scans"
    fi
  }
  sim --vcd "$d/file.vcd" --dump-memory "$d/file.mem" play "${device[@]}" "$d/image.$f"
  ref=$E2E_OUT
  expect_eq "$E2E_STATUS $(head -c 2048 "$d/file.mem" | cmp - "$d/image.bin" && echo programmed)" "0 programmed" \
    "$f from a file: programmed"
  play_from stdin /dev/stdin < <(cat "$d/image.$f")
  play_from dash - < <(cat "$d/image.$f")
  cat "$d/image.$f" >"$d/fifo" &
  play_from fifo "$d/fifo"
  wait
done

# A mismatch and a syntax error from a pipe: their status and line.
printf 'STATE RESET;\nSDR 64 TDI(0) TDO(1b4d2093 0a5c7035);\n\nSDR 32 TDI(0) TDO(12345678);\n' >"$d/bad.svf"
sim play "${device[@]}" /dev/stdin < <(cat "$d/bad.svf")
expect_eq "$E2E_STATUS $E2E_ERR" \
  "6 kelvorn-play: /dev/stdin:4: SDR of 32 bits: TDO mismatch: expected 12345678 mask ffffffff actual 0a5c7035" \
  "mismatch from a pipe"
sim --stats play "${device[@]}" - < <(printf 'SIR 8 TDI (01);\nSDR 8 TDI (zz);\n')
expect_eq "$E2E_STATUS $E2E_ERR" \
  "4 kelvorn-play: -:2: SDR: expected a hex digit or ')' in TDI, found 'z'
sim stats: reads 0 writes 0 tck-cycles 0 contention 0" "syntax error from a pipe: nothing touched"

# ---- a 17 MB SVF through a pipe ----

# 53125 rows of 256 bits: 17 MB of SVF, 13 s in the plain build. A sanitized
# build, about ten times slower, programs 6250 rows (2 MB of SVF).
rows=53125
[ "$(cache KELVORN_SANITIZE)" = ON ] && rows=6250
chain=0x0a5c7035:8,0x1b4d2093:6:mem=${rows}x256,0x2468ace1:10
head -c $((rows * 32)) /dev/urandom >"$d/big.bin"
expect_run 0 "" "" "big vectors" kelvorn-vectors --chain "$chain" --svf "$d/big.svf" "$d/big.bin"
expect_err 0 "" "big SVF from a pipe: status" sim --dump-memory "$d/big.mem" play "${device[@]}" /dev/stdin < <(cat "$d/big.svf")
expect_eq "$(cmp "$d/big.mem" "$d/big.bin" && echo same)" same \
  "big SVF ($(stat -c %s "$d/big.svf") bytes) from a pipe: memory byte for byte"

# ---- timing values at the edge of their range ----

chain=0x0a5c7035:8,0x1b4d2093:6
# Each statement first, then a scan: in the dry run and in the play.
while IFS='|' read -r status statement error; do
  printf '%s;\nSDR 32 TDI(0);\n' "$statement" >"$d/edge"
  for run in --dry-run ""; do
    sim play $run "${device[@]}" "$d/edge"
    expect_eq "$E2E_STATUS|$E2E_ERR" "$status|${error:+kelvorn-play: $d/edge:1: $error}" "$statement $run"
  done
done <<'EOF'
5|FREQUENCY 1E-12 HZ|FREQUENCY: a ceiling of 1e-12 Hz is below the 1 Hz this player paces TCK at
5|FREQUENCY 1E-30 HZ|FREQUENCY: a ceiling of 1e-30 Hz is below the 1 Hz this player paces TCK at
0|FREQUENCY 1E30 HZ|
5|RUNTEST 1E20 SEC|RUNTEST: a wait of 1e+20 s is longer than the 86400 s (a day) one statement may wait
5|RUNTEST 1E30 TCK|RUNTEST: a run count of 1e+30 TCK cycles is more than the 1e+12 this player clocks
EOF
# XRUNTEST 0xffffffff before an XSIR: 71 minutes and 35 s of waiting, honoured (the dry run says so).
printf '\x04\xff\xff\xff\xff\x02\x0e\xff\xff\x00' >"$d/long.xsvf"
sim play --dry-run "${device[@]}" "$d/long.xsvf"
expect_eq "$E2E_STATUS $E2E_OUT" \
  "0 kelvorn-play: $d/long.xsvf: 3 statements, 1 scans, 14 bits, at least 4295.0 s of waits; nothing played (dry run)" \
  "XRUNTEST 0xffffffff: dry run"

# ---- input that never ends, and files with nothing to play ----

# Input that cannot be read twice is copied whole before its check: `yes` and /dev/zero would fill
# $TMPDIR. Here it is a tmpfs of 4 MiB in the run's namespace: the copy stops where one more block of
# 64 KiB would leave less than a sixteenth of it free, and nothing is played.
chain=0x0a5c7035:8,0x1b4d2093:6
printf '#!/bin/sh\nmount -t tmpfs -o size=4m tmpfs /tmp || exit 99\nTMPDIR=/tmp exec "$@"\n' >"$E2E_DIR/smalltmp"
chmod +x "$E2E_DIR/smalltmp"
mknod "$E2E_DIR/dev/zero" c 1 5
room="cannot keep a copy of it in /tmp: after 3932160 bytes, more would leave less than 262144 bytes free there; set TMPDIR to a file system with more room, or give a regular file instead"
nothing=$'\nsim stats: reads 0 writes 0 tck-cycles 0 contention 0'
expect_err 7 "kelvorn-play: -: $room$nothing" "yes through a pipe: the copy stops" "$E2E_DIR/smalltmp" "$E2E_DIR/bin/kelvorn-sim" --chain "$chain" --stats play "${device[@]}" - < <(yes)
expect_err 7 "kelvorn-play: /dev/zero: $room$nothing" "/dev/zero: the copy stops" "$E2E_DIR/smalltmp" "$E2E_DIR/bin/kelvorn-sim" --chain "$chain" --stats play "${device[@]}" /dev/zero

# XCOMPLETE, then 37 KB of a programming file; files with no statement, from a file and from a pipe.
{ printf '\x00'; for _ in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19; do cat "$d/image.xsvf"; done; } |
  head -c 37001 >"$d/after.xsvf"
: >"$d/empty.svf"
printf '! nothing but comments\n\n// and white space\n\t\n' >"$d/comments.svf"
none="the file holds no statement (it is empty, or only white space and comments)"
sim --stats play "${device[@]}" "$d/after.xsvf"
expect_eq "$E2E_STATUS $(stat -c %s "$d/after.xsvf") $E2E_ERR" \
  "4 37001 kelvorn-play: $d/after.xsvf: byte 0: XCOMPLETE: the file goes on after it, at byte 1$nothing" \
  "XSVF with bytes after XCOMPLETE"
expect_err 4 "kelvorn-play: $d/empty.svf:1: $none$nothing" "empty SVF" sim --stats play "${device[@]}" "$d/empty.svf"
expect_err 4 "kelvorn-play: $d/empty.svf: byte 0: the file is empty$nothing" "empty XSVF" sim --stats play --format xsvf "${device[@]}" "$d/empty.svf"
expect_err 4 "kelvorn-play: $d/comments.svf:5: $none$nothing" "SVF of comments" sim --stats play "${device[@]}" "$d/comments.svf"
expect_err 4 "kelvorn-play: -:1: $none$nothing" "nothing through standard input" sim --stats play "${device[@]}" - </dev/null

# ---- a signal in the middle of a play ----

# kelvorn-play with a terminal's signal dispositions (e2e_start).
chain=0x0a5c7035:8,0x1b4d2093:6:mem=64x256,0x2468ace1:10
printf 'STATE RESET;\nRUNTEST 100 SEC;\n' >"$d/long.svf"
for sig in INT TERM HUP QUIT; do
  rm -f "$d/sig.mem" "$d/sig.vcd"
  e2e_start kelvorn-sim --chain "$chain" --stats --dump-memory "$d/sig.mem" --vcd "$d/sig.vcd" \
    play "${device[@]}" "$d/long.svf"
  sleep 1
  kill -s "$sig" "$E2E_BG"
  e2e_wait
  expect_eq "$E2E_STATUS" "$((128 + $(kill -l "$sig")))" "SIG$sig: died of the signal"
  expect_eq "$(sed -E 's/[0-9]+/N/g' <<<"$E2E_ERR")" "sim stats: reads N writes N tck-cycles N contention N" "SIG$sig: stats line"
  expect_eq "$(stat -c %s "$d/sig.mem")" 2048 "SIG$sig: memory dumped"
  # The last value of TCK (C), TMS (M) and TDI (I): no longer driven.
  expect_eq "$(vcd_end "$d/sig.vcd" C M I)" "zC zM zI" "SIG$sig: the VCD ends with the pins released"
done

e2e_done
