# libkelvorn's chain commands against kelvorn-chain's on the same simulated
# board: the JSON documents of discover, sample, usercode, drive and connect
# are the same text, devices named by position or entity name; the refusals;
# a drive that holds until kv_release, seen in the pins the boundary
# register drove. (A net that is not connected and the default BSDL path
# through $XDG_DATA_HOME: tests/python/test_kelvorn.py, through this library.)
source "$(dirname "$0")/lib.sh" "$1"

chain="bsdl=$bsdl/kv_cpld64.bsd:usercode=0xcafe0001,bsdl=$bsdl/KV_FPGA6.BSD:usercode=0x12345678,bsdl=$bsdl/kv_dap4.bsd"
board=(--cpu 0x16:0x30 --chain "$chain" --net '0.led=1.SW(1)' --net '1.BUS=0.d(0)' --pin '1.SW(2)=0')
dev=(rotanMotub 0000:03:00.0)
# Each run has a /tmp of its own, where the build may lie: the program and
# its library are copied where the runs see them.
mkdir -p "$E2E_DIR/bin" "$E2E_DIR/lib"
cp "$E2E_BUILD/bin/kelvorn_chain_json" "$E2E_DIR/bin/"
cp -P "$E2E_BUILD"/lib/libkelvorn-sim.so* "$E2E_DIR/lib/"
lib() { e2e_run /usr/bin/env LD_LIBRARY_PATH="$E2E_DIR/lib" "$E2E_DIR/bin/kelvorn_chain_json" "${board[*]}" "${dev[@]}" "$@"; }

# kelvorn-chain's answer and the library's to each command, line for line.
commands=(
  "discover|"
  "sample 1|sample 1"
  "sample KV_FPGA6|sample KV_FPGA6"
  "sample kv_cpld64|sample kv_cpld64"
  "usercode 0|usercode 0"
  "usercode KV_FPGA6|usercode KV_FPGA6"
  "drive 0 led=1 d(2)=0 d(3)=1 d(1)=z|drive 0 led=1 d(2)=0 d(3)=1 d(1)=z"
  "drive 1 BUS=1|drive 1 BUS=1"
  "connect 0.led 1.SW(1)|connect 0.led 1.SW(1)"
  "connect KV_FPGA6.BUS kv_cpld64.d(0)|connect KV_FPGA6.BUS kv_cpld64.d(0)"
)
want=()
asked=()
for c in "${commands[@]}"; do
  tool=${c#*|}
  e2e_run kelvorn-sim "${board[@]}" chain --json --i-know-the-board --hold 0 --bsdl-path "$bsdl" "${dev[@]}" $tool
  expect_eq "$E2E_STATUS" 0 "kelvorn-chain --json ${tool:-discovery}: status"
  want+=("$E2E_OUT")
  asked+=("${c%%|*}")
done
expect_err 0 "" "the library's run" lib know "$bsdl" "${asked[@]}"
mapfile -t got <<<"$E2E_OUT"
for i in "${!commands[@]}"; do
  expect_eq "${got[$i]}" "${want[$i]}" "the same JSON: ${asked[$i]}"
done
# Not a vacuous match: the documents hold what the board has.
expect_eq "${got[4]}|${got[8]}" '{"device":0,"usercode":"0xcafe0001"}|{"from":"0.led","to":"1.SW(1)","result":"connected"}' \
  "the answers are the board's"

# Refusals: the tool's words (but for how to give a file), the library's statuses.
lib - "$bsdl" "drive 0 led=1" "connect 0.led 1.SW(1)" "add $bsdl/kv_cpld64.bsd" "drive 0 d(2)=0" "drive 0 led=2" \
  "drive 1 OUT0=z" "usercode 2" "sample 3" "sample NOSUCH" "connect 0led 1.SW(1)" "drive 2 x=1"
expect_eq "$E2E_OUT" "status drive refused: drive refused: device 0's BSDL file was found, not given: EXTEST drives its pins and may fight the board's own drivers; give it with kv_add_bsdl (a file, not a directory), or open with KV_I_KNOW_THE_BOARD
status drive refused: connect refused: device 0's BSDL file was found, not given: EXTEST drives its pins and may fight the board's own drivers; give it with kv_add_bsdl (a file, not a directory), or open with KV_I_KNOW_THE_BOARD
ok
status drive refused: drive: d(2) shares control cell 7 with d(3), not named: it would drive that port too
status argument: led=2: wants PORT=0, PORT=1 or PORT=z
status drive refused: drive: OUT0 has no control cell: it cannot be left undriven
status bsdl: device 2 (KV_DAP4) has no USERCODE instruction
status argument: no device at position 3 (the chain has 3)
status argument: no device on the chain is NOSUCH
status argument: 0led: wants DEV.PORT, for example 1.LED
status bsdl: device 2 (KV_DAP4) has no boundary register" "refusals: statuses and messages"

# A drive held until kv_release: the pins stay driven after the call, and
# nothing more is driven once it is released (--dump-pins: what the boundary
# registers drove, written at the end).
board+=(--dump-pins "$d/pins")
lib know "$bsdl" "hold 1 OUT0=1" "release" "release"
expect_eq "$E2E_STATUS|$E2E_OUT|$(cat "$d/pins")" '0|{"device":1,"driving":{"OUT0":1},"two_state_at_safe_level":[],"hold_s":null}
ok
ok|1.OUT0 1' "a drive held until kv_release: the pin driven"

e2e_done
