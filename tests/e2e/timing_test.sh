# A TCK ceiling on the simulated board, measured in a VCD stamped with real
# time (--vcd-time real): an SVF with FREQUENCY 1E5 HZ, an XSVF played with
# --frequency 100000 and an XVC client that asked for a 10 us period
# (settck), and kelvorn-chain's discovery with --frequency 100000, give no
# two rising TCK edges closer than 10 us. How close to the ceiling a play
# runs on an idle machine is a speed target, measured in
# bench/ceiling_bench.cpp: a loaded machine only makes a play slower, which
# is no fault. TDO is read only where a MASK compares it: a
# 4096-bit scan under a mask of 64 ones reads TDO 64 times, under a mask of
# zeros not at all (the simulator's --stats, on every backend).
source "$(dirname "$0")/lib.sh" "$1"
source "$(dirname "$0")/serve_lib.sh"


# From a real-time VCD: the number of rising TCK edges, the shortest time
# between two of them and the time from the first to the last, in ns.
rising_edges() {
  awk '/^#/ { t = substr($0, 2); next }
       /^[01z]C$/ { v = substr($0, 1, 1); if (v == "1" && last == "0") { n++; if (n > 1 && t - prev < min) min = t - prev; if (n == 1) { first = t; min = 1e18 } prev = t } last = v }
       END { print n, min, prev - first }' "$1"
}
# The checks on one run: enough edges, none closer than the 10 us ceiling.
check_ceiling() {  # what vcd
  read -r n min span < <(rising_edges "$2")
  expect_eq "$((n > 100))|$((min >= 10000))" "1|1" \
    "$1: more than 100 rising edges ($n), no two closer than 10 us (shortest $min ns)"
}

device=(rotanMotub 0000:04:00.0)

# ---- SVF with FREQUENCY, XSVF with --frequency ----

printf 'FREQUENCY 1E5 HZ;\nSTATE RESET;\nSDR 64 TDI(0) TDO(1b4d2093 0a5c7035);\nRUNTEST 3000 TCK;\nSIR 14 TDI(3fff);\n' >"$d/f.svf"
expect_err 0 "" "SVF FREQUENCY 1E5: played" kelvorn-sim --vcd "$d/svf.vcd" --vcd-time real play "${device[@]}" "$d/f.svf"
expect_eq "$(head -2 "$d/svf.vcd" | tail -1)" '$timescale 1 ns $end' "real-time VCD: nanoseconds"
check_ceiling "SVF FREQUENCY 1E5" "$d/svf.vcd"
# XRUNTEST 0, XSDRSIZE 64, XSDRTDO of the two IDCODEs, XSIR, XSTATE Run-Test/Idle, XCOMPLETE:
# the same without FREQUENCY, and 3000 cycles in Run-Test/Idle through XWAIT.
printf '\x04\x00\x00\x00\x00\x08\x00\x00\x00\x40\x09\x00\x00\x00\x00\x00\x00\x00\x00\x1b\x4d\x20\x93\x0a\x5c\x70\x35\x17\x01\x01\x00\x00\x0b\xb8\x02\x0e\x3f\xff\x00' >"$d/f.xsvf"
expect_err 0 "" "XSVF --frequency 100000: played" kelvorn-sim --vcd "$d/xsvf.vcd" --vcd-time real play --frequency 100000 "${device[@]}" "$d/f.xsvf"
check_ceiling "XSVF --frequency 100000" "$d/xsvf.vcd"
# Without a ceiling: register speed, far faster.
e2e_run kelvorn-sim --vcd "$d/fast.vcd" --vcd-time real play "${device[@]}" "$d/f.xsvf"
read -r n min span < <(rising_edges "$d/fast.vcd")
expect_eq "$((min < 10000))" 1 "no ceiling: edges closer than 10 us ($min ns)"

# kelvorn-chain's discovery under --frequency 100000.
expect_err 0 "" "kelvorn-chain --frequency 100000: discovered" kelvorn-sim --vcd "$d/chain.vcd" --vcd-time real chain --frequency 100000 --bsdl-path "" "${device[@]}"
check_ceiling "kelvorn-chain --frequency 100000" "$d/chain.vcd"

# ---- XVC settck ----

xvc_client() {  # port: settck 10 us, then 4 shifts of 1024 bits
  python3 - "$1" <<'EOF'
import socket, struct, sys
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
def recv(n):
    b = b""
    while len(b) < n:
        c = s.recv(n - len(b))
        if not c: raise SystemExit("closed")
        b += c
    return b
s.sendall(b"settck:" + struct.pack("<I", 10000))
print(struct.unpack("<I", recv(4))[0])
for _ in range(4):
    s.sendall(b"shift:" + struct.pack("<I", 1024) + b"\x00" * 128 + b"\x00" * 128)
    recv(128)
s.close()
EOF
}
# The answer is 10 us, or the registers' own period where a loaded machine
# (or a sanitizer) makes them slower still; either way no edge comes sooner.
serve_start --vcd "$d/xvc.vcd" --vcd-time real -- --protocol xvc "${device[@]}"
answered=$(xvc_client "$SERVE_PORT")
serve_stop
expect_eq "$((${answered:-0} >= 10000))" 1 "XVC settck 10000: answered $answered ns, no less than asked"
check_ceiling "XVC settck 10000" "$d/xvc.vcd"

# ---- TDO read only where compared ----

# A 4096-bit scan of the loop-back register (instruction 0x2 of the first
# device, the other in BYPASS): TDO under a mask of 64 ones, then of zeros,
# against the same scan without TDO; a scan itself reads only the image of
# the registers the pins share (once per XilIntf_shift).
ones=$(printf 'f%.0s' $(seq 16))
zeros=$(printf '0%.0s' $(seq 1024))
printf 'SIR 14 TDI(3f02);\nSDR 4096 TDI(0) TDO(0) MASK(%s);\n' "$ones" >"$d/mask64.svf"
printf 'SIR 14 TDI(3f02);\nSDR 4096 TDI(0) TDO(0) MASK(%s);\n' "$zeros" >"$d/mask0.svf"
printf 'SIR 14 TDI(3f02);\nSDR 4096 TDI(0);\n' >"$d/none.svf"
printf 'SIR 14 TDI(3f02);\nSDR 4096 TDI(0);\nSDR 4096 TDI(0);\n' >"$d/twice.svf"
reads() {  # backend-args... file: register reads of the play
  e2e_run kelvorn-sim --stats "$@"
  sed -nE 's/^sim stats: reads ([0-9]+) .*/\1/p' <<<"$E2E_ERR"
}
while read -r what board fpga address; do
  base=$(reads ${board//,/ } play "$fpga" "$address" "$d/none.svf")
  r64=$(reads ${board//,/ } play "$fpga" "$address" "$d/mask64.svf")
  r0=$(reads ${board//,/ } play "$fpga" "$address" "$d/mask0.svf")
  scan=$(($(reads ${board//,/ } play "$fpga" "$address" "$d/twice.svf") - base))
  expect_eq "$((r64 - base))" 64 "$what: a mask of 64 ones reads TDO 64 times ($r64 reads, $base without TDO)"
  expect_eq "$((r0 - base))" 0 "$what: a mask of zeros reads no TDO"
  expect_eq "$((scan <= 3))" 1 "$what: a scan without TDO reads only the register image ($scan)"
done <<'EOF'
SoC-GPIO --platform,gozip,--cpu,0x16:0x30 fodak 0000:00:14.0
SB820 --platform,mosavo fodak 0000:00:14.0
PEX-8600 --cpu,0x16:0x30 rotanMotub 0000:03:00.0
PEX-8700 --cpu,0x16:0x30 nipig2Scd 0000:04:00.0
GbE --cpu,0x16:0x30 penetScd 0000:05:00.0
Cedar-Fork --platform,kubez kubezShimScd 0000:00:1f.0
Cave-Creek --cpu,0x6:0x4d zetizSwitchScd 0000:00:1f.0
Pericom --cpu,0x16:0x30 togif 0000:06:00.0
EOF

e2e_done
