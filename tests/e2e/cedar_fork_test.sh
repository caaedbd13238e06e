# kelvorn on a Cedar Fork board ("platform=kubez"): the pad DW0 registers of
# "kubezShimScd" in a sparse file standing for /dev/mem (physical address
# 0xFD000000 + pad offset), while TCK is held, after clean-up, and for TDO.
source "$(dirname "$0")/lib.sh" "$1"

e2e_cmdline "console=ttyS0 platform=kubez"
e2e_devmem $((0xFDC60000))
mem=$E2E_DIR/dev/mem
pad() { echo $((0xFD000000 + $1)); }
TCK=$(pad 0xC20B40) TDI=$(pad 0xC20B20) TMS=$(pad 0xC20B50) TDO=$(pad 0xC20B60)
AUX=$(pad 0xC20B80) FIXED=$(pad 0xC508C0)
pads=("$TCK" "$TDI" "$TMS" "$AUX" "$FIXED" "$TDO")
# Pads as inputs (bits 9..8 = 01b) with GPIOTXSTATE and bit 30 set; TDO
# an input that sees the device drive it high (GPIORXSTATE).
for p in $TCK $TDI $TMS $AUX; do wr32 "$mem" $p 0x40000101; done
wr32 "$mem" $FIXED 0x40000100
wr32 "$mem" $TDO 0x40000102

expect_run 1 "Kelvorn
CHECKING FPGA kubezShimScd
tdo result is 1" "" "tdo" kelvorn kubezShimScd 0000:00:1f.0 tdo
# TCK, TDI and TMS inputs, driven low by select; aux an input, its level
# untouched; the fixed pad an input, left high; TDO as it was.
expect_eq "$(regs rd32 "$mem" "${pads[@]}")" \
  "0x40000100 0x40000100 0x40000100 0x40000101 0x40000101 0x40000102" "after tdo"

e2e_hold kelvorn kubezShimScd 0000:00:1f.0 tck 1
# TCK an output, high; TDI and TMS outputs, low; aux and the fixed pad outputs, high; TDO an input.
expect_eq "$(regs rd32 "$mem" "${pads[@]}")" "0x40000201 0x40000200 0x40000200 0x40000201 0x40000201 0x40000102" "hold"
e2e_wait
expect_eq "$E2E_STATUS" 1 "tck 1: status"
expect_eq "$(rd32 "$mem" $TCK)" 0x40000101 "tck 1 cleanup: TCK an input, level kept"

# Elsewhere the names are not this backend's; the factory still says what it checked.
e2e_cmdline "console=ttyS0 platform=mosavo"
expect_run 253 "Kelvorn
CHECKING FPGA kubezShimScd
internal error setting up interfaces" "" "other platform" kelvorn kubezShimScd 0000:00:1f.0 tdo
expect_eq "$(rd32 "$mem" $TCK)" 0x40000101 "other platform: TCK untouched"

e2e_done
