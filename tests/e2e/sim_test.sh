# kelvorn-sim: the kelvorn tool's output and statuses on simulated boards,
# its refusals, the scan command's output and statuses, what a run leaves
# (stats, memory dump, VCD) and the status when it cannot be written, and
# kelvorn-vectors' refusals.
source "$(dirname "$0")/lib.sh" "$1"

# The tool's own refusals, on the board's processor and platform. First
# processors the SoC backend does not support: a Kabini-generation model,
# a family 0x17 model, an Intel processor (base family and model count).
for c in 0x16:0x20/22/32 23:49/23/49 6:0x55/6/5; do
  IFS=/ read -r cpu family model <<<"$c"
  expect_run 1 "Kelvorn
Unsupported family $family model $model" "" "processor $cpu" \
    kelvorn-sim --platform gozip --cpu "$cpu" -- fodak 0000:00:14.0 tdo
done
# Its usage refusals, each with its status, output and calls: tool_test.
expect_run 253 "Kelvorn
CHECKING FPGA dubakScd
internal error setting up interfaces" "" "a SoC device on a board without a platform word" \
  kelvorn-sim -- dubakScd 0000:00:14.0 tdo

# Pin commands: status the level set or read; TDO idles high on a chain in Test-Logic-Reset.
expect_run 1 "Kelvorn" "" "SB820 tck 1" kelvorn-sim --platform mosavo -- fodak 0000:00:14.0 tck 1
expect_run 0 "Kelvorn
GPIO Offset: 0x580" "" "Cave Creek tdi 0" kelvorn-sim -- mubarScd 0000:00:1f.0 tdi 0
expect_run 1 "Kelvorn
tdo result is 1" "" "PEX 8700 tdo" kelvorn-sim -- nipig2Scd 0000:03:00.0 tdo

# What a pin change did to the registers (the line's format: simboard_test).
e2e_run kelvorn-sim --show-writes --platform gozip --cpu 0x16:0x05 -- fodak 0000:00:14.0 tck 1
expect_eq "$E2E_STATUS|$(grep 'TCK 0->1' <<<"$E2E_ERR")" \
  "1|sim: gpioWindow W8 0x1a8: 0x00 -> 0x40  TCK 0->1  TAP Test-Logic-Reset->Run-Test/Idle" "show-writes: status, the TCK edge"

# The scan.
expect_run 0 "0x0a5c7035
0x1b4d2093" "" "scan, default chain" kelvorn-sim scan rotanMotub 0000:03:00.0
expect_run 0 "CHECKING FPGA togif
0x00000001
0xffff0001
0x12345679" "" "scan, chain given" kelvorn-sim --chain 0x1:2,0xffff0001:32,0x12345679:5 scan togif 0000:05:00.0
expect_run 1 "Unsupported gpio 168" "kelvorn-sim: fodak is not wired to this processor's GPIO pads" \
  "scan on a processor whose pads the device is not wired to" \
  kelvorn-sim --platform gozip --cpu 0x19:0x44 scan fodak 0000:00:14.0
expect_run 3 "CHECKING FPGA nothing" "kelvorn-sim: no backend serves nothing on this board" "scan, unknown name" \
  kelvorn-sim scan nothing 0000:00:14.0
expect_run 2 "" "kelvorn-sim: 0000:00:14 is not a PCI address (dddd:bb:dd.f)" "scan, bad address" \
  kelvorn-sim scan fodak 0000:00:14
expect_err 105 "--chain: an IDCODE has bit 0 set and is not all ones: 0x12345678:5
Run with --help for more information." "scan, IDCODE without bit 0" kelvorn-sim --chain 0x12345678:5 scan fodak 0000:00:14.0
# The simulator's own option errors share one status, an unknown option too.
expect_run 105 "" "The following argument was not expected: --no-such-option
Run with --help for more information." "unknown simulator option" kelvorn-sim --no-such-option scan fodak 0000:00:14.0
# A programmable device on the chain: the scan reads through it; the stats line, the memory dump (erased)
# and the VCD are written when the run ends (once, also when the run ends in exit(): simboard_test).
e2e_run kelvorn-sim --stats --chain 0x0a5c7035:8:mem=4x16:erase=5,0x1b4d2093:6 --dump-memory /tmp/mem.bin \
  --vcd /tmp/scan.vcd scan rotanMotub 0000:03:00.0
expect_eq "$E2E_STATUS $E2E_OUT" "0 0x0a5c7035
0x1b4d2093" "scan with a programmable device"
expect_eq "$E2E_ERR" "sim stats: reads 1072 writes 2149 tck-cycles 1068 contention 0" "scan: stats"
expect_eq "$(od -An -tx1 "$(e2e_tmp_dir)/mem.bin" | tr -d ' \n')" "ffffffffffffffff" "scan: memory dump"
expect_eq "$(sed -n '1p;13,15p' "$(e2e_tmp_dir)/scan.vcd" | paste -sd' ')" \
  '$version kelvorn-sim $end $enddefinitions $end #0 $dumpvars' "scan: VCD header"
expect_eq "$(tail -n2 "$(e2e_tmp_dir)/scan.vcd" | paste -sd' ')" "#3221 zM" "scan: VCD ends at the last access"
expect_err 105 "--dump-memory: no device on the chain has memory (mem=ROWSxBITS)
Run with --help for more information." "dump without a programmable device" kelvorn-sim --dump-memory /tmp/none.bin scan rotanMotub 0000:03:00.0
expect_err 105 "--vcd: cannot write /nowhere/x.vcd: No such file or directory
Run with --help for more information." "VCD file that cannot be written" kelvorn-sim --vcd /nowhere/x.vcd scan rotanMotub 0000:03:00.0

# A record that cannot be written when the run ends (a full disk: /dev/full takes the option's check, an
# empty file, and fails at the first block written, here the close): one line naming the file, and a run
# that would have succeeded ends with 105; a run that failed keeps its own status. Each dump holds bytes.
mknod "$E2E_DIR/dev/full" c 1 7
full="kelvorn-sim: cannot write /dev/full: No space left on device"
expect_run 105 "0: EXTEST driving led=1, every other output released; holding 0 s
0: released (Test-Logic-Reset)" "$full" "pin dump to a full disk" \
  kelvorn-sim --chain "bsdl=$bsdl/kv_cpld64.bsd" --dump-pins /dev/full \
  chain --bsdl "$bsdl/kv_cpld64.bsd" --hold 0 rotanMotub 0000:03:00.0 drive 0 led=1
expect_run 105 "0x0a5c7035
0x1b4d2093" "$full" "VCD to a full disk" kelvorn-sim --vcd /dev/full scan rotanMotub 0000:03:00.0
expect_run 105 "0x0a5c7035
0x1b4d2093" "$full" "memory dump to a full disk" \
  kelvorn-sim --chain 0x0a5c7035:8:mem=4x16,0x1b4d2093:6 --dump-memory /dev/full scan rotanMotub 0000:03:00.0
printf 'SDR 64 TDI(0) TDO(0);\n' >"$E2E_DIR/files/bad.svf"
e2e_run kelvorn-sim --vcd /dev/full --dump-memory /dev/full --chain 0x0a5c7035:8:mem=4x16,0x1b4d2093:6 \
  play --quiet rotanMotub 0000:03:00.0 "$E2E_DIR/files/bad.svf"
expect_eq "$E2E_STATUS $E2E_ERR" "6 kelvorn-play: $E2E_DIR/files/bad.svf:1: SDR of 64 bits: TDO mismatch: expected 0000000000000000 mask ffffffffffffffff actual 1b4d20930a5c7035
$full
$full" "a failed play keeps its status, and names each record"

# The vector generator's refusals (what it writes: simvectors_test and program_test.sh).
tmp=$(e2e_tmp_dir)
printf '\x21\x43\x65' >"$tmp/image.bin"
: >"$tmp/empty.bin"
chain=0x0a5c7035:5,0x12345679:4:mem=2x12:erase=30:program=10,0x1b4d2093:3
help=$'\nRun with --help for more information.'
while IFS='|' read -r status err args; do
  expect_run "$status" "" "${err/%+help/$help}" "kelvorn-vectors $args" kelvorn-vectors $args
done <<EOF
1|kelvorn-vectors: /tmp/empty.bin is empty|--chain $chain --svf /tmp/x.svf /tmp/empty.bin
1|kelvorn-vectors: /tmp/image.bin needs 2 rows of 12 bits; the device has 1|--chain 0x12345679:4:mem=1x12 --svf /tmp/x.svf /tmp/image.bin
1|kelvorn-vectors: cannot read /tmp/nothing.bin: No such file or directory|--chain $chain --xsvf /tmp/x.xsvf /tmp/nothing.bin
1|kelvorn-vectors: cannot write /nowhere/x.xsvf: No such file or directory|--chain $chain --xsvf /nowhere/x.xsvf /tmp/image.bin
2|At least 1 option from [--svf,--xsvf] is required+help|--chain $chain /tmp/image.bin
2|--chain: no device on the chain has memory (mem=ROWSxBITS)+help|--chain 0x0a5c7035:5 --svf /tmp/x.svf /tmp/image.bin
EOF
expect_eq "$(ls "$(e2e_lock_dir)")" "" "no lock under /var/lock"

e2e_done
