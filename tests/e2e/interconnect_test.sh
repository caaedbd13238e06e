# kelvorn-chain test on the simulated test board (tests/data/netlist: U1
# kv_io48 and U2 KV_BGA36 with a KV_DAP4 in BYPASS between them), wired from
# the same netlist and broken on purpose: a good board passes in the
# counting patterns with no contention, each planted fault is named exactly,
# the reports (text, JSON, JUnit XML against the schema) and the statuses.
source "$(dirname "$0")/lib.sh" "$1"

data=$(dirname "$0")/../data
cp "$data"/bsdl/kv_io48.bsd "$data"/bsdl/KV_BGA36.BSD "$data"/bsdl/kv_dap4.bsd "$data"/netlist/board.* \
  "$data"/junit/junit.xsd "$d/"

board=(--chain "bsdl=$d/kv_io48.bsd,bsdl=$d/kv_dap4.bsd,bsdl=$d/KV_BGA36.BSD" --netlist "$d/board.net" --part U1=0 --part U2=2)
chain=(chain --bsdl "0=$d/kv_io48.bsd" --bsdl "2=$d/KV_BGA36.BSD" rotanMotub 0000:03:00.0 --part U1=0 --part U2=KV_BGA36)
# Runs the test with the board's faults ($@) on the board; the netlist in $netlist.
board_test() { e2e_run kelvorn-sim "${board[@]}" "$@" --stats "${chain[@]}" "${extra[@]}" test "$d/$netlist"; }
contention() { sed -n 's/^sim stats: .* contention \([0-9]*\)$/\1/p' <<<"$E2E_ERR"; }
extra=()

# ---- a good board, from either format: 16 driven nets, 5 bits, 10 patterns and the preload ----
for netlist in board.net board.txt; do
  board_test
  expect_eq "$E2E_STATUS|$E2E_OUT|$(contention)" \
    "0|22 nets: 18 passed, 0 failed, 4 untestable; 10 patterns, 11 scans|0" "$netlist: a good board"
done

# ---- each fault named exactly; contention only where a short joins two drivers ----
netlist=board.net
while IFS='|' read -r what faults found summary fights; do
  expect_out 8 "${found//;/$'\n'}
22 nets: $summary" "$what" board_test $faults
  [ "$fights" = any ] || expect_eq "$(contention)" "$fights" "$what: contention"
done <<'EOF'
an open receiving pin|--open 2.IO(3)|open: D3 at U2.A5|17 passed, 1 failed, 4 untestable; 10 patterns, 11 scans|0
an open driving pin, three-pin net|--open 0.io(10)|open: A0 at U1.16|17 passed, 1 failed, 4 untestable; 10 patterns, 11 scans|0
a two-net wired-AND short|--short D0,D1|short: D0, D1 (wired-and)|16 passed, 2 failed, 4 untestable; 16 patterns, 18 scans|any
a three-net wired-OR short|--short D2,D3,A0:or|short: A0, D2, D3 (wired-or)|15 passed, 3 failed, 4 untestable; 18 patterns, 20 scans|any
a short one net dominates|--short D4,D5:D5|short: D4, D5 (D5 dominates)|16 passed, 2 failed, 4 untestable; 16 patterns, 18 scans|any
stuck-0|--stuck D6=0|stuck-0: D6|17 passed, 1 failed, 4 untestable; 14 patterns, 16 scans|0
stuck-1 on a net U2 drives|--stuck B0=1|stuck-1: B0|17 passed, 1 failed, 4 untestable; 14 patterns, 16 scans|0
a pulled net held against its pull|--stuck PU0=0|stuck-0: PU0|17 passed, 1 failed, 4 untestable; 10 patterns, 11 scans|0
two faults at once|--open 0.io(10) --stuck D8=1|open: A0 at U1.16;stuck-1: D8|16 passed, 2 failed, 4 untestable; 14 patterns, 16 scans|0
EOF

# ---- power nets and pulls named by option ----
extra=(--power D9 --pull EXT0=up)
board_test
expect_eq "$E2E_STATUS|$E2E_OUT|$(contention)" "0|22 nets: 18 passed, 0 failed, 4 untestable; 10 patterns, 11 scans|0" \
  "D9 a power net, EXT0 pulled up"
extra=()

# ---- JSON and JUnit XML ----
extra=(--json --junit "$d/result.xml")
board_test --short D0,D1
expect_eq "$E2E_STATUS|$(python3 -c '
import json, sys
r = json.load(sys.stdin)
print(sorted(r), sorted(r["nets"][1]), r["faults"], r["patterns"], r["scans"])
print([(n["name"], n["class"], n["result"], n.get("reason")) for n in r["nets"] if n["result"] != "pass"])' <<<"$E2E_OUT")" \
  "8|['faults', 'nets', 'patterns', 'scans'] ['class', 'name', 'pins', 'result'] [{'kind': 'short', 'nets': ['D0', 'D1'], 'pins': ['U1.2', 'U2.A2', 'U1.3', 'U2.A3'], 'behaviour': 'wired-and'}] 16 18
[('+3V3', 'power', 'untestable', 'a power net'), ('D0', 'testable', 'fail', None), ('D1', 'testable', 'fail', None), ('EXT0', 'untestable', 'untestable', 'one boundary-scan pin'), ('EXT1', 'untestable', 'untestable', 'no boundary-scan pin'), ('GND', 'power', 'untestable', 'a power net')]" \
  "JSON: status, keys, the fault and the nets not passed"
expect_eq "$(xmllint --noout --schema "$d/junit.xsd" "$d/result.xml" 2>&1)" "$d/result.xml validates" "JUnit XML: the schema"
expect_eq "$(grep -c '<failure message="short: D0, D1 (wired-and)" type="short">' "$d/result.xml")|$(grep -c '<skipped ' "$d/result.xml")|$(grep -c '<testcase ' "$d/result.xml")" \
  "2|4|22" "JUnit XML: a failure for each shorted net, skipped for untestable ones, a testcase per net"
extra=()

# ---- a netlist that cannot be read or does not fit: status 9, file:line ----
printf 'D0: U1.2 U2.A2\nD1 U1.3\n' >"$d/broken.txt"
printf 'D0: U1.2 U2.A2\nD1: U1.3 U2.G9\n' >"$d/unmapped.txt"
netlist=broken.txt board_test
expect_eq "$E2E_STATUS|$E2E_OUT|$(head -1 <<<"$E2E_ERR")" \
  "9||kelvorn-chain: $d/broken.txt:2: no ':' after the net's name (NAME: REF.PIN ...)" "a broken netlist"
netlist=unmapped.txt board_test
expect_eq "$E2E_STATUS|$(head -1 <<<"$E2E_ERR")" \
  "9|kelvorn-chain: $d/unmapped.txt:2: U2 pin G9 is not in the pin map of KV_BGA36 (package BGA36)" "a pin not in the pin map"
e2e_run kelvorn-sim "${board[@]}" chain --bsdl "0=$d/kv_io48.bsd" rotanMotub 0000:03:00.0 --part U1=0 --part U2=1 \
  --json test "$d/board.net"
expect_eq "$E2E_STATUS|$E2E_OUT" \
  '9|{"status":9,"error":"--part U2=1: device 1 has no BSDL file (--bsdl, --bsdl-path)"}' "a part without a BSDL file, JSON"
e2e_run kelvorn-sim "${board[@]}" chain --bsdl "0=$d/kv_io48.bsd" --bsdl-path "$d" rotanMotub 0000:03:00.0 --part U1=0 \
  --part U2=2 test "$d/board.net"
expect_eq "$E2E_STATUS|$E2E_ERR" \
  "6|kelvorn-chain: test refused: device 2's BSDL file was found, not given: EXTEST drives its pins and may fight the board's own drivers; give it with --bsdl 2=FILE, or --i-know-the-board" \
  "a part whose BSDL file was found, not given"

e2e_done
