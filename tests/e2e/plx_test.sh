# kelvorn on PLX PEX 8600 and PEX 8700 switches: the GPIO registers in the
# switch's BAR 0 (the function's resource0 file) during the ten-second hold
# of a set command and after the pins are released.
source "$(dirname "$0")/lib.sh" "$1"

# PEX 8700, "tilegScd": TCK 9, TMS 8, TDI 7 out, TDO 6 in, GPIO 10 held high.
# Registers: direction of GPIOs 0-9 and of GPIO 10, output data.
e2e_pci 0000:03:00.0 resource0 4096
bar=$(e2e_pci_file 0000:03:00.0 resource0)
wr32 "$bar" 0x600 0x001c0007  # TDO's direction field set, GPIO 0's too
wr32 "$bar" 0x604 0xfff0
wr32 "$bar" 0x624 0x3
e2e_hold kelvorn tilegScd 0000:03:00.0 tck 1
# GPIOs 9, 8, 7 outputs, 6 input, 0 untouched; GPIO 10's register written whole; GPIO 10 and TCK high.
expect_eq "$(regs rd32 "$bar" 0x600 0x604 0x624)" "0x24800007 0x4 0x603" "8700 hold"
e2e_wait
expect_eq "$E2E_STATUS $E2E_OUT" "1 Kelvorn" "8700 tck 1: status and output"
# The driven GPIOs inputs again, output data left alone.
expect_eq "$(regs rd32 "$bar" 0x600 0x604 0x624)" "0x7 0x0 0x603" "8700 after"

# PEX 8700, "nipig2Scd": the same registers in the 4 KB block named by bits
# 4..0 of 0x354 (here 3: 0x3A34, 0x3A38, 0x3A48).
e2e_pci 0000:05:00.0 resource0 16384
bar=$(e2e_pci_file 0000:05:00.0 resource0)
wr32 "$bar" 0x354 0xffffffe3
e2e_hold kelvorn nipig2Scd 0000:05:00.0 tms 1
expect_eq "$(regs rd32 "$bar" 0x3a34 0x3a38 0x3a48)" "0x24800000 0x4 0x500" "relocated hold: GPIO 10 and TMS high"
expect_eq "$(regs rd32 "$bar" 0x600 0x604 0x624)" "0x0 0x0 0x0" "relocated: default block untouched"
e2e_wait
expect_eq "$E2E_STATUS" 1 "relocated tms 1: status"
expect_eq "$(regs rd32 "$bar" 0x3a34 0x3a38 0x3a48)" "0x0 0x0 0x500" "relocated after"

# PEX 8600, "rotanSeret": TDO is GPIO 13, bit 13 of the input data at 0x63C.
e2e_pci 0000:04:00.0 resource0 4096
bar=$(e2e_pci_file 0000:04:00.0 resource0)
wr32 "$bar" 0x63c 0x2000
wr32 "$bar" 0x644 0xffffffff
wr32 "$bar" 0x648 0xffffffff
expect_run 1 "Kelvorn
tdo result is 1" "" "8600 tdo high" kelvorn rotanSeret 0000:04:00.0 tdo
# Output data: TCK, TDI and TMS, and GPIO 16, left driven low; every GPIO an input again.
expect_eq "$(regs rd32 "$bar" 0x644 0x648 0x62c 0x630)" "0xffff2fff 0xfffffffe 0x0 0x0" "8600 after tdo"

# "rotanMotub": TDO is GPIO 19, bit 3 of the second group's input data at 0x640.
wr32 "$bar" 0x63c 0xffffffff
wr32 "$bar" 0x640 0xfffffff7
expect_run 0 "Kelvorn
tdo result is 0" "" "8600 tdo low" kelvorn rotanMotub 0000:04:00.0 tdo

e2e_done
