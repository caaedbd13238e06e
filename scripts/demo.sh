#!/usr/bin/env bash
# Installs what is missing, builds, and shows the tools at work on simulated
# boards: kelvorn-sim runs the production code against register-level models
# of the GPIO chips with a JTAG chain on the wired pins, so nothing here
# touches this machine's hardware.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh build
sim=build/bin/kelvorn-sim

show() {
  echo
  echo "\$ kelvorn-sim $*"
  local status=0
  "$sim" "$@" || status=$?
  echo "(exit status $status)"
}

echo "== IDCODE scans through the GPIO pins of several chips (default chain: two devices) =="
show --platform gozip --cpu 0x16:0x30 scan fodak 0000:00:14.0     # the SoC's own GPIO (Steppe Eagle)
show --platform mosavo scan fodak 0000:00:14.0                    # the same name on an SB820 board
show scan rotanMotub 0000:03:00.0                                 # a PEX 8600 switch
show scan nipig2Scd 0000:04:00.0                                  # a PEX 8700, relocated GPIO block
show scan penetScd 0000:05:00.0                                   # a GbE controller's SDP pins
show --platform telub --cpu 0x19:0x44 --chain 0x12345679:5,0x0abcdef1:7,0x2468ace1:10 scan tumarScd 0000:00:14.0

echo
echo "== One pin change, and what it did to the registers (z: not driven) =="
show --show-writes --platform mosavo -- fodak 0000:00:14.0 tck 1
show --platform gozip -- pabev_misc 0000:00:14.0 tck 1            # a pin this board class may not use

echo
echo "== Programming a device: vectors for an image, played through several backends, read back =="
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
chain=0x0a5c7035:8:mem=4x32:erase=2000,0x1b4d2093:6
printf 'kelvorn!' >"$tmp/image.bin"
echo "\$ kelvorn-vectors --chain $chain --svf image.svf --xsvf image.xsvf image.bin"
build/bin/kelvorn-vectors --chain "$chain" --svf "$tmp/image.svf" --xsvf "$tmp/image.xsvf" "$tmp/image.bin"
cat "$tmp/image.svf"
echo "($(stat -c %s "$tmp/image.xsvf") bytes of XSVF)"
readback() { echo "memory after the run: $(od -An -c "$tmp/memory.bin" | tr -s ' \n' ' ')"; }
show --stats --chain "$chain" --dump-memory "$tmp/memory.bin" --vcd "$tmp/play.vcd" \
  play rotanMotub 0000:03:00.0 "$tmp/image.svf"                    # PEX 8600
readback
echo "VCD: $(grep -c '^#' "$tmp/play.vcd") change times, $(sed -n 4,11p "$tmp/play.vcd" | cut -d' ' -f5 | paste -sd' ')"
show --stats --chain "$chain" --dump-memory "$tmp/memory.bin" --platform mosavo \
  play fodak 0000:00:14.0 "$tmp/image.xsvf"                        # SB820, from the XSVF
readback
sed -i 's/TDO (766c656b)/TDO (766c656a)/' "$tmp/image.svf"       # one expected bit wrong
show --chain "$chain" play penetScd 0000:05:00.0 "$tmp/image.svf"  # GbE: the mismatch, pins released

echo
echo "== Bring-up: what is on a chain of BSDL devices, a pin read, a net tested =="
bsdl=tests/data/bsdl
board=(--chain "bsdl=$bsdl/kv_cpld64.bsd,bsdl=$bsdl/KV_FPGA6.BSD,bsdl=$bsdl/kv_dap4.bsd" --net '0.led=1.SW(1)' --pin '1.SW(2)=0')
show "${board[@]}" chain --bsdl-path "$bsdl" rotanMotub 0000:03:00.0
show "${board[@]}" chain --bsdl-path "$bsdl" rotanMotub 0000:03:00.0 sample KV_FPGA6
show "${board[@]}" chain --bsdl "0=$bsdl/kv_cpld64.bsd" --bsdl-path "$bsdl" rotanMotub 0000:03:00.0 connect 0.led '1.SW(1)'
show "${board[@]}" chain --bsdl "0=$bsdl/kv_cpld64.bsd" --bsdl-path "$bsdl" rotanMotub 0000:03:00.0 connect 0.led '1.SW(3)'
show --tdo stuck-1 chain rotanMotub 0000:03:00.0                  # a dead chain, named

echo
echo "== From Python, over libkelvorn-sim: the chain, an IDCODE read by hand, the image played =="
cat >"$tmp/demo.py" <<'PY'
import sys
import kelvorn

board = "--cpu 0x16:0x30 --chain " + sys.argv[1] + " --dump-memory " + sys.argv[3]
with kelvorn.open("rotanMotub", "0000:03:00.0", sim=board) as dev:
    for d in dev.discover():
        print(d)
    dev.shift_ir(1, 0x01)
    print("IDCODE of device 1:", hex(dev.shift_dr(1, 0, 32)))
    print(dev.play(sys.argv[2]))
PY
sed -i 's/TDO (766c656a)/TDO (766c656b)/' "$tmp/image.svf"       # the image's file again
echo "\$ python3 demo.py (kelvorn.open(..., sim=...), discover, shift_ir, shift_dr, play)"
PYTHONPATH=python KELVORN_LIBRARY_PATH=build/lib python3 "$tmp/demo.py" "$chain" "$tmp/image.svf" "$tmp/memory.bin"
readback
