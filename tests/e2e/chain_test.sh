# kelvorn-chain on simulated boards whose chain holds devices described by
# BSDL files (tests/data/bsdl): discovery in text and JSON through three
# backends, with the files and without; sample of pins set on the board,
# connect over a wired net and an unwired pin (the faults of a board wired
# from its netlist: interconnect_test.sh), drive seen in the pins the
# boundary register drove, USERCODE; dead chains; BSDL files that cannot be
# read; the exit statuses.
source "$(dirname "$0")/lib.sh" "$1"

chain="bsdl=$bsdl/kv_cpld64.bsd:usercode=0xcafe0001,bsdl=$bsdl/KV_FPGA6.BSD:usercode=0x12345678,bsdl=$bsdl/kv_dap4.bsd"

# ---- discovery, through three backends ----

found="0: IDCODE 0x0123402f, IR 8 bits (bsdl), Texas Instruments, kv_cpld64, version 0
1: IDCODE 0x0a5c7043, IR 6 bits (bsdl), Lattice Semi., KV_FPGA6, version 0
2: IDCODE 0x4ba00477, IR 4 bits (bsdl), ARM Ltd., KV_DAP4, version 4
3 devices, IR 18 bits in all"
json='{"devices":[{"position":0,"idcode":"0x0123402f","ir_length":8,"ir_length_from":"bsdl","manufacturer":"Texas Instruments","part":"kv_cpld64","version":0,"bsdl":"BSDL/kv_cpld64.bsd","jep106":{"bank":1,"code":23}},{"position":1,"idcode":"0x0a5c7043","ir_length":6,"ir_length_from":"bsdl","manufacturer":"Lattice Semi.","part":"KV_FPGA6","version":0,"bsdl":"BSDL/KV_FPGA6.BSD","jep106":{"bank":1,"code":33}},{"position":2,"idcode":"0x4ba00477","ir_length":4,"ir_length_from":"bsdl","manufacturer":"ARM Ltd.","part":"KV_DAP4","version":4,"bsdl":"BSDL/kv_dap4.bsd","jep106":{"bank":5,"code":59}}],"ir_total":18}'
while read -r what board fpga address; do
  board=(${board//,/ } --chain "$chain")
  expect_run 0 "$found" "" "$what: discovery with the BSDL files" kelvorn-sim "${board[@]}" chain --bsdl-path "$bsdl" "$fpga" "$address"
  e2e_run kelvorn-sim "${board[@]}" chain --json --bsdl-path "$bsdl" "$fpga" "$address"
  expect_eq "$E2E_STATUS|${E2E_OUT//$bsdl/BSDL}" "0|$json" "$what: discovery as JSON"
  expect_out 0 "0: IDCODE 0x0123402f, IR 8 bits (detected), Texas Instruments, version 0
1: IDCODE 0x0a5c7043, IR 6 bits (detected), Lattice Semi., version 0
2: IDCODE 0x4ba00477, IR 4 bits (detected), ARM Ltd., version 4
3 devices, IR 18 bits in all" "$what: without BSDL files, the IR lengths detected" kelvorn-sim "${board[@]}" chain --bsdl-path "" "$fpga" "$address"
  # The pins a drive left (sample and connect read the chain as discovery
  # does, whichever backend moves the pins: checked below on one).
  e2e_run kelvorn-sim "${board[@]}" --dump-pins "$d/pins" chain --i-know-the-board --bsdl-path "$bsdl" --hold 0 \
    "$fpga" "$address" drive 1 OUT0=0
  expect_eq "$E2E_STATUS|$(cat "$d/pins")" "0|1.OUT0 0" "$what: drive"
done <<'EOF'
SoC-GPIO --platform,gozip,--cpu,0x16:0x30 fodak 0000:00:14.0
PEX-8600 --cpu,0x16:0x30 rotanMotub 0000:03:00.0
GbE --cpu,0x16:0x30 penetScd 0000:05:00.0
EOF
dev=(rotanMotub 0000:03:00.0)
sim=(kelvorn-sim --chain "$chain")

# A device without IDCODE, an unassigned maker, an ambiguous capture pinned by --irlen.
e2e_run kelvorn-sim --chain 0x00000cfd:5,none:3 chain --json --bsdl-path "" "${dev[@]}"
expect_eq "$E2E_OUT" '{"devices":[{"position":0,"idcode":"0x00000cfd","ir_length":5,"ir_length_from":"detected","manufacturer":null,"part":null,"version":0,"bsdl":null,"jep106":{"bank":13,"code":126}},{"position":1,"idcode":null,"ir_length":3,"ir_length_from":"detected","manufacturer":null,"part":null,"version":null,"bsdl":null,"jep106":null}],"ir_total":8}' \
  "no IDCODE, an unknown maker: JSON nulls"
e2e_run kelvorn-sim --chain 0x00000cfd:5,none:3 chain --bsdl-path "" --irlen 1=3 "${dev[@]}"
expect_eq "$E2E_OUT" "0: IDCODE 0x00000cfd, IR 5 bits (detected), bank 13 code 0x7e, version 0
1: no IDCODE (BYPASS after reset), IR 3 bits (option)
2 devices, IR 8 bits in all" "no IDCODE, an unknown maker, --irlen"

# Two files for one IDCODE (one die, two packages): reported; --bsdl POS=FILE
# chooses. A file in the directory that cannot be read is passed over.
mkdir -p "$d/two"
sed 's/kv_cpld64/kv_cpld64_cs48/g; s/"TQ44"/"CS48"/' "$bsdl/kv_cpld64.bsd" >"$d/two/kv_cpld64_cs48.bsd"
cp "$bsdl/kv_cpld64.bsd" "$d/two/"
printf 'entity BAD is\n  attribute INSTRUCTION_LENGTH of BAD : entity is 4;\n  attribute INSTRUCTION_OPCODE of BAD : entity is "BYPASS (111)";\nend BAD;\n' >"$d/two/bad.bsd"
passed="kelvorn-chain: passed over $d/two/bad.bsd:3: INSTRUCTION_OPCODE: BYPASS 111 has 3 bits; INSTRUCTION_LENGTH is 4"
e2e_run "${sim[@]}" chain --bsdl-path "$d/two" "${dev[@]}"
expect_eq "$E2E_STATUS|$(head -n1 <<<"$E2E_OUT")|$E2E_ERR" \
  "0|0: IDCODE 0x0123402f, IR 8 bits (bsdl), Texas Instruments, kv_cpld64, version 0|$passed
kelvorn-chain: 0: IDCODE 0x0123402f is in more than one BSDL file: $d/two/kv_cpld64.bsd, $d/two/kv_cpld64_cs48.bsd; using the first (--bsdl 0=FILE chooses)" \
  "two files for one IDCODE: reported; a file that cannot be read passed over"
e2e_run "${sim[@]}" chain --bsdl-path "$d/two" --bsdl "0=$d/two/kv_cpld64_cs48.bsd" "${dev[@]}"
expect_eq "$(head -n1 <<<"$E2E_OUT")|$E2E_ERR" "0: IDCODE 0x0123402f, IR 8 bits (bsdl), Texas Instruments, kv_cpld64_cs48, version 0|$passed" \
  "--bsdl 0=FILE chooses"

# ---- sample, usercode ----

expect_out 0 "clk 0 (pin 1)
rst_n 1 (pin 2)
d(0) 1 (pin 4)
d(1) 1 (pin 5)
d(2) 1 (pin 6)
d(3) 0 (pin 7)" "sample: the pins set, the others pulled up, with their package pins" "${sim[@]}" --pin 0.clk=0 --pin '0.d(3)=0' chain --bsdl-path "$bsdl" "${dev[@]}" sample 0
expect_out 0 '{"device":1,"pins":{"SW(0)":1,"SW(1)":1,"SW(2)":0,"SW(3)":1,"BUS":0},"package":"FG256","package_pins":{"SW(0)":["A1"],"SW(1)":["A2"],"SW(2)":["A3"],"SW(3)":["A4"],"BUS":["B2"]}}' \
  "sample by entity name, as JSON" "${sim[@]}" --pin '1.SW(2)=0' --pin 1.BUS=0 chain --json --bsdl-path "$bsdl" "${dev[@]}" sample KV_FPGA6
expect_out 0 "1: USERCODE 0x12345678" "usercode" "${sim[@]}" chain --bsdl-path "$bsdl" "${dev[@]}" usercode 1
expect_err 5 "kelvorn-chain: device 2 (KV_DAP4) has no boundary register" "sample: no boundary register" "${sim[@]}" chain --bsdl-path "$bsdl" "${dev[@]}" sample 2
expect_err 5 "kelvorn-chain: device 0 has no BSDL file (--bsdl, --bsdl-path)" "sample: no BSDL file" "${sim[@]}" chain --bsdl-path "" "${dev[@]}" sample 0

# ---- connect ----

net=(--net '0.led=1.SW(1)' --net '1.BUS=0.d(0)')
while read -r from to status result; do
  expect_out $status "$from -> $to: $result" "connect $from $to" "${sim[@]}" "${net[@]}" --pin '1.SW(2)=0' chain --i-know-the-board --bsdl-path "$bsdl" "${dev[@]}" connect "$from" "$to"
done <<'EOF'
0.led 1.SW(1) 0 connected
1.BUS 0.d(0) 0 connected
0.led 1.SW(3) 7 stuck-1
0.led 1.SW(2) 7 stuck-0
EOF
expect_out 0 '{"from":"0.led","to":"1.SW(1)","result":"connected"}' "connect as JSON, the driver's BSDL given" "${sim[@]}" "${net[@]}" chain --json --bsdl "0=$bsdl/kv_cpld64.bsd" --bsdl-path "$bsdl" "${dev[@]}" connect 0.led '1.SW(1)'
expect_err 6 "kelvorn-chain: connect refused: device 0's BSDL file was found, not given: EXTEST drives its pins and may fight the board's own drivers; give it with --bsdl 0=FILE, or --i-know-the-board" \
  "connect: refused without the BSDL given" "${sim[@]}" "${net[@]}" chain --bsdl-path "$bsdl" "${dev[@]}" connect 0.led '1.SW(1)'

# ---- drive ----

e2e_run "${sim[@]}" --dump-pins "$d/pins" chain --bsdl "$bsdl/kv_cpld64.bsd" --bsdl-path "$bsdl" --hold 0 \
  "${dev[@]}" drive 0 led=1 'd(2)=0' 'd(3)=1' 'd(1)=z'
# What it says; the pins the boundary register drove (--dump-pins): led, d(2)
# and d(3) as named; d(0) and d(1) under their control cell at its disabling value.
expect_eq "$E2E_STATUS|$E2E_OUT|$(cat "$d/pins")" "0|0: EXTEST driving led=1 d(2)=0 d(3)=1, every other output released; holding 0 s
0: released (Test-Logic-Reset)|0.led 1
0.d(2) 0
0.d(3) 1" "drive: what it says, the pins driven"
e2e_run "${sim[@]}" --dump-pins "$d/pins" chain --i-know-the-board --bsdl-path "$bsdl" --hold 0 "${dev[@]}" drive 1 OUT0=1 BUS=z
expect_eq "$E2E_STATUS|$(cat "$d/pins")" "0|1.OUT0 1" "drive: a two-state output and a released bidirectional pin"
# A two-state output cannot be switched off: left unnamed, it is driven at its safe level, and said so.
e2e_run "${sim[@]}" --dump-pins "$d/pins" chain --i-know-the-board --bsdl-path "$bsdl" --hold 0 "${dev[@]}" drive 1 BUS=1
expect_eq "$E2E_STATUS|$(head -n1 <<<"$E2E_OUT")|$(cat "$d/pins")" "0|1: EXTEST driving OUT0=0 BUS=1 (OUT0: two-state, at the safe level), every other output released; holding 0 s|1.OUT0 0
1.BUS 1" "drive: an unnamed two-state output at its safe level"
# Refused before any pin moves: nothing in the dump of driven pins.
while IFS='|' read -r status err args; do
  e2e_run "${sim[@]}" --dump-pins "$d/pins" chain --bsdl-path "$bsdl" --bsdl "0=$bsdl/kv_cpld64.bsd" --hold 0 "${dev[@]}" $args
  expect_eq "$E2E_STATUS|$E2E_ERR|$(cat "$d/pins")" "$status|kelvorn-chain: $err|" "drive refused: $args"
done <<'EOF'
6|drive refused: device 1's BSDL file was found, not given: EXTEST drives its pins and may fight the board's own drivers; give it with --bsdl 1=FILE, or --i-know-the-board|drive 1 OUT0=1
6|drive: clk has no output cell|drive 0 clk=1
6|drive: OUT0 has no control cell: it cannot be left undriven|drive 1 OUT0=z
6|drive: kv_cpld64 has no port nosuch|drive 0 nosuch=1
2|led=2: wants PORT=0, PORT=1 or PORT=z|drive 0 led=2
6|drive: d(0)=1 and d(1)=z share control cell 4: one cannot be released while another is driven|drive 0 d(1)=z d(0)=1
6|drive: d(0)=1 and d(1)=z share control cell 4: one cannot be released while another is driven|drive 0 d(0)=1 d(1)=z
6|drive: d(2) shares control cell 7 with d(3), not named: it would drive that port too|drive 0 led=1 d(2)=0
6|drive: d(3) shares control cell 7 with d(2), not named: it would drive that port too|drive 0 d(3)=1
6|drive: vcc has no output cell|drive 0 vcc=1
6|drive: led is named twice|drive 0 led=1 led=0
6|connect: d(0) shares control cell 4 with d(1), not named: it would drive that port too|connect 0.d(0) 1.BUS
EOF

# A file given for a position describes the device there, or nothing moves
# (status 5, whatever --i-know-the-board says): a copy of kv_cpld64 with
# another entity, another IDCODE and led on another cell.
sed -e 's/kv_cpld64/kv_other/g' -e 's/0001001000110100000000101111/0001001000110100000000111111/' \
  -e 's/3 (bc_1, led, output3, x, 2, 1, z)/3 (bc_1, *, internal, x)/' -e 's/10 (bc_1, \*, internal, x)/10 (bc_1, led, output3, x, 2, 1, z)/' \
  "$bsdl/kv_cpld64.bsd" >"$d/other.bsd"
e2e_run "${sim[@]}" --dump-pins "$d/pins" chain --bsdl "0=$d/other.bsd" --i-know-the-board --hold 0 "${dev[@]}" drive 0 led=1
expect_eq "$E2E_STATUS|$E2E_ERR|$(cat "$d/pins")" "5|kelvorn-chain: device 0 has IDCODE 0x0123402f, but $d/other.bsd describes kv_other, IDCODE 0xx123403f|" \
  "a BSDL file for another IDCODE at a position: refused"
expect_run 5 "" "kelvorn-chain: device 2 has IDCODE 0x4ba00477, but $bsdl/KV_FPGA6.BSD describes KV_FPGA6, IDCODE 0x0a5c7043" \
  "discovery refused too" "${sim[@]}" chain --bsdl "2=$bsdl/KV_FPGA6.BSD" "${dev[@]}"
# Positions that do not fit are refused, never wrapped; a repeated option
# takes one value each time and leaves the arguments after it alone.
expect_err 2 "kelvorn-chain: --bsdl 4294967296=$bsdl/kv_cpld64.bsd: a position is 0 to 1023" "--bsdl: a position too large" "${sim[@]}" chain --bsdl "4294967296=$bsdl/kv_cpld64.bsd" "${dev[@]}" drive 0 led=1
expect_err 2 "kelvorn-chain: --irlen 4294967296=8: wants POS=N, N at least 2 (a position is 0 to 1023)" "--irlen: a position too large" "${sim[@]}" chain --irlen 4294967296=8 "${dev[@]}"
expect_out 0 "1: USERCODE 0x12345678" "--bsdl repeated before the arguments" "${sim[@]}" chain --bsdl "0=$bsdl/kv_cpld64.bsd" --bsdl "1=$bsdl/KV_FPGA6.BSD" "${dev[@]}" usercode 1

# SIGINT, SIGQUIT and SIGTERM during a hold, as a shell that does not ignore
# them sends them, end it the normal way: the pins released (Test-Logic-Reset),
# TCK, TMS and TDI last seen undriven in the waveform, status 0.
for sig in INT QUIT TERM; do
  e2e_start "${sim[@]}" --dump-pins "$d/pins" --vcd "$d/hold.vcd" chain --i-know-the-board --bsdl-path "$bsdl" "${dev[@]}" \
    drive 1 OUT0=1
  for ((i = 0; i < 50; i++)); do grep -q holding "$E2E_DIR/bg.out" && break; sleep 0.1; done
  kill -$sig "$E2E_BG"
  e2e_wait
  expect_eq "$E2E_STATUS|$E2E_OUT|$(cat "$d/pins")" "0|1: EXTEST driving OUT0=1, every other output released; holding until Ctrl-C
1: released (Test-Logic-Reset)|1.OUT0 1" "SIG$sig during a drive hold: released"
  expect_eq "$(vcd_end "$d/hold.vcd" C M I)" "zC zM zI" "SIG$sig during a drive hold: TCK, TMS and TDI released last"
done

# A backend that refuses the board ends the process (status 1) from inside;
# with --json the answer is still a document on stdout, the backend's own
# line on stderr.
e2e_run kelvorn-sim --platform gozip --cpu 0x19:0x44 chain --json fodak 0000:00:14.0
expect_eq "$E2E_STATUS|$E2E_OUT|$E2E_ERR" '1|{"status":1,"error":"the fodak backend refused this board (its message is on standard error)"}|kelvorn-sim: fodak is not wired to this processor'"'"'s GPIO pads
Unsupported gpio 168' \
  "--json when the backend refuses the board: a document"

# The device names each backend serves, and when: nothing is opened.
e2e_run kelvorn-chain --list-devices
expect_eq "$E2E_STATUS|$(grep -cE '^(rotanMotub +PLX PEX 8600 GPIO +always|penetScd +Intel GbE controller SDP pins +always|kubezShimScd +Intel Cedar Fork PCH GPIO +kernel command line has platform=\(sosepi\|disal\|kubez\))$' <<<"$E2E_OUT")" \
  "0|3" "--list-devices: a name, its backend, its condition"
expect_eq "$(grep -c . <<<"$E2E_OUT")" 74 "--list-devices: every name of every backend (fodak and komefi twice: two backends, one per platform)"
e2e_run kelvorn-sim chain --list-devices --json
expect_eq "$E2E_STATUS|$(python3 -c 'import json,sys; d=json.load(sys.stdin)["devices"]; print(len(d), d[0])' <<<"$E2E_OUT")" \
  "0|74 {'name': 'fodak', 'backend': 'AMD SB820 GPIO', 'condition': 'kernel command line has no platform=(gozip|bupul)'}" \
  "--list-devices --json, through the simulator"
expect_err 2 "kelvorn-chain: --list-devices takes no device, address or command" "--list-devices with a device" kelvorn-chain --list-devices rotanMotub
expect_err 2 "kelvorn-chain: address is required" "no address" kelvorn-chain rotanMotub

# watch: the first sample, then until a signal.
e2e_start "${sim[@]}" --pin '1.SW(0)=0' chain --bsdl-path "$bsdl" "${dev[@]}" watch 1
for ((i = 0; i < 50; i++)); do grep -q BUS "$E2E_DIR/bg.out" && break; sleep 0.1; done
kill -TERM "$E2E_BG"
e2e_wait
expect_eq "$E2E_STATUS|$(head -n1 <<<"$E2E_OUT")" "0|SW(0) 0 (pin A1)" "watch: until a signal"

# A pin that toggles every 100 ms on the simulated board, watched for about a
# second (timeout's own status is 124): only that port moves, each change
# from the level before it, 0 first.
_e2e_cmd "${sim[@]}" --pin 0.clk=wave:100 chain --bsdl-path "$bsdl" "${dev[@]}" watch 0
env --default-signal=INT,QUIT timeout -s INT 1.2 "${E2E_ARGV[@]}" >"$E2E_DIR/bg.out" 2>"$E2E_DIR/bg.err"
E2E_STATUS=$?
E2E_OUT=$(cat "$E2E_DIR/bg.out")
moves=$(grep -c -- ' -> ' <<<"$E2E_OUT")
toggles=$(awk 'NR == 1 { last = $2; next }
  $3 == "clk" && $5 == "->" && $4 == last && $6 == 1 - last { n++; last = $6 }
  END { print n + 0 }' <<<"$E2E_OUT")
expect_eq "$E2E_STATUS|$(head -n1 <<<"$E2E_OUT")|$(cat "$E2E_DIR/bg.err")" "124|clk 0 (pin 1)|" "watch a wave:100 pin: the first sample"
expect_eq "$((toggles >= 4))|$((moves == toggles))" "1|1" "watch a wave:100 pin: $toggles toggles of clk, $moves changes in all"

# ---- --json: one valid JSON document a line, whatever happens ----

# A BSDL file whose name is not UTF-8, given and found.
cp "$bsdl/kv_cpld64.bsd" "$d/"$'\xff'"cpld.bsd"
valid_json() {  # every line of stdin parses as UTF-8 JSON: prints the count, or the error
  python3 -c 'import json, sys
print(len([json.loads(s.decode()) for s in sys.stdin.buffer.read().split(b"\n") if s]))' 2>&1 | tail -n1
}
while IFS='|' read -r status want args; do
  e2e_run "${sim[@]}" chain --json --bsdl "0=$d/"$'\xff'"cpld.bsd" --bsdl-path "$bsdl" --hold 0 "${dev[@]}" $args
  expect_eq "$E2E_STATUS|$(valid_json <<<"$E2E_OUT")|$(grep -o -F "$want" <<<"$E2E_OUT" | head -n1)" "$status|1|$want" "--json: ${args:-discovery}"
done <<'EOF'
0|�cpld.bsd","jep106"|
0|"package_pins":{"SW(0)":["A1"]|sample 1
0|"usercode":"0x12345678"|usercode 1
0|"driving":{"led":1}|drive 0 led=1
6|"status":6|drive 0 d(0)=1
7|"result":"stuck-1"|connect 0.led 1.SW(1)
2|"status":2|sample 7
2|"status":2|frobnicate
5|"status":5|usercode 2
EOF
e2e_run "${sim[@]}" chain --json --bsdl "$d/"$'\xfe'"none.bsd" "${dev[@]}"
expect_eq "$E2E_STATUS|$(valid_json <<<"$E2E_OUT")" "5|1" "--json: a file that cannot be read, its name not UTF-8"
expect_out 2 '{"status":2,"error":"The following argument was not expected: --frobnicate"}' "--json: an option not understood" "${sim[@]}" chain --json --frobnicate "${dev[@]}"
expect_out 3 '{"status":3,"error":"no backend serves nosuch on this board"}' "--json: no backend, nothing else on stdout" "${sim[@]}" chain --json nosuch 0000:03:00.0
e2e_run kelvorn-sim --tdo stuck-1 chain --json "${dev[@]}"
expect_eq "$E2E_STATUS|$(valid_json <<<"$E2E_OUT")" "4|1" "--json: a dead chain"

# ---- dead chains, bad files, usage ----

expect_err 4 "kelvorn-chain: TDO stuck at 0: nothing shifted in comes out; check that the pin the backend reads is the chain's TDO, the devices' power and that TCK and TMS reach them" \
  "TDO stuck at 0" kelvorn-sim --tdo stuck-0 chain "${dev[@]}"
expect_err 4 "kelvorn-chain: TDO stuck at 1: no device drives it (a pull-up only); check the devices' power, that TCK and TMS reach them, and the TDO wiring" \
  "TDO stuck at 1" kelvorn-sim --tdo stuck-1 chain "${dev[@]}"
e2e_run kelvorn-sim --chain 0x0a5c7035:8,0x1b4d2093:6,0x0362d093:6 chain --max-devices 2 "${dev[@]}"
expect_eq "$E2E_STATUS|${E2E_ERR%%:*}|$(grep -c -- --max-devices <<<"$E2E_ERR")" "4|kelvorn-chain|1" \
  "more devices than --max-devices: status, and says what to raise"

expect_err 5 "kelvorn-chain: $d/two/bad.bsd:3: INSTRUCTION_OPCODE: BYPASS 111 has 3 bits; INSTRUCTION_LENGTH is 4" \
  "a BSDL file given that cannot be read: file:line" "${sim[@]}" chain --bsdl "$d/two/bad.bsd" "${dev[@]}"
# Files that describe test logic which cannot be: refused with file:line before
# any pin moves (a SAMPLE overlapping EXTEST would put the device in EXTEST).
sed 's/sample (00000001)/sample (0000100X)/' "$bsdl/kv_cpld64.bsd" >"$d/overlap.bsd"
sed 's/^    led           : out bit;/&\n    led           : out bit;\n    led           : out bit;/' "$bsdl/kv_cpld64.bsd" >"$d/thrice.bsd"
sed 's/led:3,/led:(3, 14),/' "$bsdl/kv_cpld64.bsd" >"$d/twopins.bsd"
while IFS='|' read -r file message; do
  e2e_run "${sim[@]}" --dump-pins "$d/pins" chain --bsdl "$d/$file" "${dev[@]}" sample 0
  expect_eq "$E2E_STATUS|$E2E_ERR|$(cat "$d/pins")" "5|kelvorn-chain: $d/$file:$message|" "refused: $file"
done <<'EOF'
overlap.bsd|25: INSTRUCTION_OPCODE: sample 0000100X overlaps extest 00001000
thrice.bsd|12: port led declared twice
twopins.bsd|18: pin map TQ44: led is a scalar port, mapped to 2 pins (a port on several pins is a bit_vector)
EOF
expect_err 5 "kelvorn-chain: $d/none.bsd:0: cannot read: No such file or directory" "a BSDL file given that does not exist" "${sim[@]}" chain --bsdl "$d/none.bsd" "${dev[@]}"

expect_run 2 "" "kelvorn-chain: 0000:03:00.0x is not a PCI address (dddd:bb:dd.f)" "bad address" \
  "${sim[@]}" chain rotanMotub 0000:03:00.0x
expect_err 3 "kelvorn-chain: no backend serves nosuch on this board" "no backend" "${sim[@]}" chain nosuch 0000:03:00.0
expect_run 2 "" "kelvorn-chain: --irlen 1=1: wants POS=N, N at least 2 (a position is 0 to 1023)" "bad --irlen" "${sim[@]}" chain --irlen 1=1 "${dev[@]}"
expect_run 2 "" "kelvorn-chain: not understood: frob with 1 argument (see --help)" "unknown command" \
  "${sim[@]}" chain --bsdl-path "$bsdl" "${dev[@]}" frob 1

e2e_done
