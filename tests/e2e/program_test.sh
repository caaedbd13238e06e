# The files kelvorn-vectors writes, played by kelvorn-play on the simulated
# board (kelvorn-sim play): a random image erased, programmed and verified
# through six backends, from SVF and from XSVF, lands in the programmable
# device's memory byte for byte; one flipped TDO bit stops a run with the
# line naming the SVF line or the XSVF byte, status 6 and the pins
# released; waits cut below the device's busy time fail the verify.
source "$(dirname "$0")/lib.sh" "$1"

d=$E2E_DIR/files
mkdir -p "$d"
cache() { sed -n "s/^$1:[A-Z]*=//p" "$E2E_BUILD/CMakeCache.txt"; }
# The summary line with its duration as T.
summary() { sed -E 's/, [0-9]+\.[0-9]+ s(,|$)/, T s\1/' <<<"$1"; }
# An image's bytes followed by 0xff up to SIZE: what the whole memory holds after programming it.
erased_after() {  # image size
  cat "$1"
  head -c $(($2 - $(stat -c %s "$1"))) /dev/zero | tr '\0' '\377'
}

# ---- a whole memory through every backend ----

# 8192 rows of 256 bits, between two devices in BYPASS. A 256 KiB image
# fills them: 2 to 8 s a run in the plain build. Under AddressSanitizer a
# run takes 15 to 22 s, so a sanitized build (KELVORN_SANITIZE in the
# build's CMakeCache) programs the first 1024 rows only, 32 KiB.
chain=0x0a5c7035:8,0x1b4d2093:6:mem=8192x256,0x2468ace1:10
kib=256
[ "$(cache KELVORN_SANITIZE)" = ON ] && kib=32
rows=$((kib * 1024 * 8 / 256))
head -c $((kib * 1024)) /dev/urandom >"$d/image.bin"
erased_after "$d/image.bin" $((8192 * 256 / 8)) >"$d/memory.bin"
expect_run 0 "" "" "vectors of the image" \
  kelvorn-vectors --chain "$chain" --svf "$d/image.svf" --xsvf "$d/image.xsvf" "$d/image.bin"

# What the SVF does: statements, scans (5 IR scans, 2 of ADDRESS, a row
# each to program and to read), bits (the IR scans through all 24
# instruction bits, the DR scans through the two bypass bits) and TCK
# cycles: the player's reset (5), STATE RESET (5) and STATE IDLE (1); from
# Run-Test/Idle back to it, an IR scan of n bits takes n + 6 cycles and a DR
# scan n + 5; the waits are 1000 after ERASE and 100 after each row.
svf_cycles=$((5 + 5 + 1 + 5 * (24 + 6) + 1000 + 2 * (18 + 5) + rows * (2 * (258 + 5) + 100)))
counts="$((16 + 3 * rows)) statements, $((7 + 2 * rows)) scans, $((5 * 24 + 2 * 18 + 2 * rows * 258)) bits"
# The XSVF has the same scans, 18 more commands than scans (5 to set up,
# 4 XRUNTEST, 4 XSDRSIZE with their XTDOMASK, XCOMPLETE), and at least the
# SVF's cycles: each XRUNTEST is at least as many cycles as microseconds,
# more when TCK runs faster than 1 MHz.
xsvf_counts="$((18 + 7 + 2 * rows)) statements, ${counts#* statements, }"
while read -r what board device address; do
  for f in svf xsvf; do
    e2e_run kelvorn-sim ${board//,/ } --stats --chain "$chain" --dump-memory "$d/mem.bin" \
      play "$device" "$address" "$d/image.$f"
    expect_eq "$E2E_STATUS" 0 "$what $f: status"
    # The Cedar Fork backend names the device it checks first.
    line=$(grep -v '^CHECKING FPGA ' <<<"$E2E_OUT")
    cycles=$(sed -E 's/.* ([0-9]+) TCK cycles, .*/\1/' <<<"$line")
    if [ $f = svf ]; then
      expect_eq "$(summary "$line")" "kelvorn-play: $d/image.svf: $counts, $svf_cycles TCK cycles, T s" "$what svf: summary"
    else
      expect_eq "$(summary "$line")" "kelvorn-play: $d/image.xsvf: $xsvf_counts, $cycles TCK cycles, T s" \
        "$what xsvf: summary"
      expect_eq "$((cycles >= svf_cycles))" 1 "$what xsvf: $cycles TCK cycles, at least the SVF's $svf_cycles"
    fi
    expect_eq "$(sed -E 's/reads [0-9]+ writes [0-9]+/reads R writes W/' <<<"$E2E_ERR")" \
      "sim stats: reads R writes W tck-cycles $cycles" "$what $f: the chain saw the player's cycles"
    cmp -s "$d/mem.bin" "$d/memory.bin"
    expect_eq "$?" 0 "$what $f: the memory holds the image, erased after it"
    rm -f "$d/mem.bin"
  done
done <<'EOF'
SoC-GPIO --platform,gozip,--cpu,0x16:0x30 fodak 0000:00:14.0
SB820 --platform,mosavo fodak 0000:00:14.0
PEX-8600 --cpu,0x16:0x30 rotanMotub 0000:03:00.0
PEX-8700 --cpu,0x16:0x30 nipig2Scd 0000:04:00.0
GbE --cpu,0x16:0x30 penetScd 0000:05:00.0
Cedar-Fork --platform,kubez kubezShimScd 0000:00:1f.0
EOF

e2e_done
