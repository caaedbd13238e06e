# The files kelvorn-vectors writes, played by kelvorn-play on the simulated
# board (kelvorn-sim play): a random image erased, programmed and verified
# through six backends, from SVF and from XSVF, lands in the programmable
# device's memory byte for byte; one flipped TDO bit stops a run with the
# line naming the SVF line or the XSVF byte, status 6 and the pins
# released; waits cut below the device's busy time fail the verify.
source "$(dirname "$0")/lib.sh" "$1"

# The summary line with its TCK rate and duration as T.
summary() { sed -E -e 's/ at [0-9.]+ [kM]?Hz,/,/' -e 's/, [0-9]+\.[0-9]+ s(,|$)/, T s\1/' <<<"$1"; }
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

# What the SVF does: statements (9 to set up, the IDCODE check's STATE
# RESET and SDR among them, the scans, a RUNTEST after ERASE and after each
# row), scans (the IDCODE check, 5 IR scans, 2 of ADDRESS, a row each to
# program and to read), bits (the check through the three 32-bit IDCODEs,
# the IR scans through all 24 instruction bits, the DR scans through the two
# bypass bits) and TCK cycles: the player's reset (5) and STATE RESET (5);
# the check from Test-Logic-Reset, 1 cycle to Run-Test/Idle and its scan,
# which ends there (STATE IDLE then takes none); from Run-Test/Idle back to
# it, an IR scan of n bits takes n + 6 cycles and a DR scan n + 5; the waits
# are 1000 after ERASE and 100 after each row.
svf_cycles=$((5 + 5 + 1 + (96 + 5) + 5 * (24 + 6) + 1000 + 2 * (18 + 5) + rows * (2 * (258 + 5) + 100)))
counts="$((17 + 3 * rows)) statements, $((8 + 2 * rows)) scans, $((96 + 5 * 24 + 2 * 18 + 2 * rows * 258)) bits"
# The XSVF has the same scans, 20 more commands than scans (5 to set up,
# the check's XSDRSIZE and XTDOMASK, 4 XRUNTEST, 4 XSDRSIZE with their
# XTDOMASK, XCOMPLETE), and at least the SVF's cycles: each XRUNTEST is at
# least as many cycles as microseconds, more when TCK runs faster than 1 MHz.
xsvf_counts="$((20 + 8 + 2 * rows)) statements, ${counts#* statements, }"
while read -r what board device address; do
  for f in svf xsvf; do
    e2e_run kelvorn-sim ${board//,/ } --stats --chain "$chain" --dump-memory "$d/mem.bin" \
      play "$device" "$address" "$d/image.$f"
    # The Cedar Fork backend names the device it checks first.
    line=$(grep -v '^CHECKING FPGA ' <<<"$E2E_OUT")
    cycles=$(sed -E 's/.* ([0-9]+) TCK cycles.*/\1/' <<<"$line")
    if [ $f = svf ]; then
      expect_eq "$(summary "$line")" "kelvorn-play: $d/image.svf: $counts, $svf_cycles TCK cycles, T s" \
        "$what svf: summary"
    else
      expect_eq "$(summary "$line")" "kelvorn-play: $d/image.xsvf: $xsvf_counts, $cycles TCK cycles, T s" \
        "$what xsvf: summary"
      expect_eq "$((cycles >= svf_cycles))" 1 "$what xsvf: $cycles TCK cycles, at least the SVF's $svf_cycles"
    fi
    expect_eq "$E2E_STATUS|$(sed -E 's/reads [0-9]+ writes [0-9]+/reads R writes W/' <<<"$E2E_ERR")" \
      "0|sim stats: reads R writes W tck-cycles $cycles contention 0" "$what $f: status, the player's cycles"
    expect_eq "$(cmp "$d/mem.bin" "$d/memory.bin" && echo same)" same "$what $f: the memory: the image, then erased"
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

# ---- a flipped TDO bit, and waits cut short ----

# Four rows of 32 bits whose values make unique byte patterns. A DR scan is
# 34 bits: bit 0 the BYPASS bit of the device nearest TDO, then the row,
# then the BYPASS bit of the one nearest TDI; only the row is compared, so
# a mismatch line shows the scan as 9 hex digits, the row shifted left by
# one, under the mask 1fffffffe.
chain=0x0a5c7035:8,0x1b4d2093:6:mem=16x32:program=37,0x2468ace1:10
rows=(67452301 efcdab89 76543210 fedcba98)
for r in "${rows[@]}"; do printf "\\x${r:6:2}\\x${r:4:2}\\x${r:2:2}\\x${r:0:2}"; done >"$d/small.bin"
scan() { printf '%09x' $((0x$1 << 1)); }
expect_run 0 "" "" "vectors of the small image" \
  kelvorn-vectors --chain "$chain" --svf "$d/small.svf" --xsvf "$d/small.xsvf" "$d/small.bin"
# The byte offset of the XSDRTDO that reads a row back: the command byte
# (0x09), the TDI (5 zero bytes: the read scans shift zeros) and the
# expected TDO, 5 bytes of the scan's value, most significant first. The
# row values make this pattern occur once.
xsdrtdo_at() {  # file row
  local tdo
  tdo=$(printf '%010x' $((0x$2 << 1)) | sed 's/../\\x&/g')
  LC_ALL=C grep -obUaP "\\x09\\x00{5}$tdo" "$1" | cut -d: -f1
}
# The JTAG pins a run moved after its mismatch line (--show-writes): the clean-up.
pins_after_mismatch() {
  sed -n '/^kelvorn-play: /,$p' <<<"$E2E_ERR" | grep -oE '(TCK|TMS|TDI) [01z]->[01z]' | paste -sd' '
}
released="TCK 0->z TDI 0->z TMS 0->z"

# The runs below name the format (--format, before the device's name, which
# kelvorn-sim must still wire the chain to). With a flipped bit in row 2's
# read-back, rows 0 and 1 verify and row 2 reads back as the image has it:
# the files as written program the device.

# SVF: bit 16 of row 2's TDO flipped, one hex digit changed.
flipped=$(printf '%08x' $((0x${rows[2]} ^ 1 << 16)))
line=$(grep -n "TDO (${rows[2]})" "$d/small.svf" | cut -d: -f1)
sed "${line}s/TDO (${rows[2]})/TDO ($flipped)/" "$d/small.svf" >"$d/flipped.svf"
e2e_run kelvorn-sim --chain "$chain" --platform mosavo --show-writes \
  play --format svf fodak 0000:00:14.0 "$d/flipped.svf"
expect_eq "$(grep -v '^sim: ' <<<"$E2E_ERR")" "kelvorn-play: $d/flipped.svf:$line: SDR of 34 bits: TDO mismatch: \
expected $(scan "$flipped") mask 1fffffffe actual $(scan "${rows[2]}")" "flipped svf: the mismatch line"
expect_eq "$(grep -oE '[0-9]+ statements|, 1 TDO mismatches$' <<<"$E2E_OUT" | paste -sd' ')" \
  "$((line - 2)) statements , 1 TDO mismatches" "flipped svf: summary, up to the statement that failed (one a line, after two comment lines)"
expect_eq "$E2E_STATUS|$(pins_after_mismatch)" "6|$released" "flipped svf: status, pins released"

# XSVF: the same bit flipped in row 2's XSDRTDO, on a PEX 8600: bit 17 of
# the scan, in the TDO bytes after the command byte and the 5 TDI bytes,
# the last of them holding bits 7..0.
at=$(xsdrtdo_at "$d/small.xsvf" "${rows[2]}")
expect_eq "$(wc -w <<<"$at")" 1 "xsvf: row 2's XSDRTDO found once"
cp "$d/small.xsvf" "$d/flipped.xsvf"
byte=$((at + 1 + 5 + 4 - 17 / 8))
wr8 "$d/flipped.xsvf" $byte $(($(rd8 "$d/flipped.xsvf" $byte) ^ 1 << 17 % 8))
e2e_run kelvorn-sim --chain "$chain" --show-writes play --format xsvf rotanMotub 0000:03:00.0 "$d/flipped.xsvf"
expect_eq "$(grep -v '^sim: ' <<<"$E2E_ERR")" "kelvorn-play: $d/flipped.xsvf: byte $at: XSDRTDO of 34 bits: \
TDO mismatch: expected $(scan "$flipped") mask 1fffffffe actual $(scan "${rows[2]}")" "flipped xsvf: the mismatch line"
expect_eq "$E2E_STATUS|$(pins_after_mismatch)" "6|$released" "flipped xsvf: status, pins released"

# Programming needs 37 cycles in Run-Test/Idle after each row; 36 leave
# every row erased, and the first read fails. SVF counts them exactly
# (RUNTEST 36 TCK). XSVF's XRUNTEST 36 is also 36 microseconds, during
# which the player clocks on: at a TCK fast enough that is 37 cycles or
# more and the rows program (the plain build gets there, the sanitized one
# on some backends only), so whether 36 fails depends on the build and the
# machine. No wait at all (0) fails at any speed.
for f in svf:36 xsvf:0; do
  IFS=: read -r f cycles <<<"$f"
  expect_run 0 "" "" "$f vectors with $cycles cycles a row" \
    kelvorn-vectors --chain "$chain" --program-cycles "$cycles" --$f "$d/short.$f" "$d/small.bin"
  e2e_run kelvorn-sim --chain "$chain" --platform mosavo --dump-memory "$d/mem.bin" \
    play --format $f fodak 0000:00:14.0 "$d/short.$f"
  if [ $f = svf ]; then
    place=$d/short.svf:$(grep -n "TDO (${rows[0]})" "$d/short.svf" | cut -d: -f1)
  else
    place="$d/short.xsvf: byte $(xsdrtdo_at "$d/short.xsvf" "${rows[0]}")"
  fi
  expect_eq "$E2E_STATUS $E2E_ERR" "6 kelvorn-play: $place: $([ $f = svf ] && echo SDR || echo XSDRTDO) of 34 bits: \
TDO mismatch: expected $(scan "${rows[0]}") mask 1fffffffe actual $(scan ffffffff)" \
    "$f with $cycles cycles a row: verify fails"
  expect_eq "$(od -An -tx1 -v "$d/mem.bin" | tr -d ' \n')" "$(printf 'ff%.0s' {1..64})" \
    "$f with $cycles cycles a row: nothing programmed"
done

e2e_done
