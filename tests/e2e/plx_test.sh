# kelvorn on PLX PEX 8600 and PEX 8700 switches: the GPIO registers in the
# switch's BAR 0 (the function's resource0 file) during the ten-second hold
# of a set command and after the pins are released.
source "$(dirname "$0")/lib.sh" "$1"

# PEX 8700, "tilegScd": TCK 9, TMS 8, TDI 7 out, TDO 6 in, GPIO 10 held high.
e2e_pci 0000:03:00.0 resource0 4096
bar=$(e2e_pci_file 0000:03:00.0 resource0)
wr32 "$bar" 0x600 0x001c0007  # TDO's direction field set, GPIO 0's too
wr32 "$bar" 0x604 0xfff0
wr32 "$bar" 0x624 0x3
e2e_start kelvorn tilegScd 0000:03:00.0 tck 1
sleep 2
expect_eq "$(rd32 "$bar" 0x600)" 0x24800007 "8700 hold: GPIOs 9, 8, 7 outputs, 6 input, 0 untouched"
expect_eq "$(rd32 "$bar" 0x604)" 0x4 "8700 hold: GPIO 10 direction register written whole"
expect_eq "$(rd32 "$bar" 0x624)" 0x603 "8700 hold: GPIO 10 and TCK high"
e2e_wait
expect_eq "$E2E_STATUS" 1 "8700 tck 1: status"
expect_eq "$E2E_OUT" "Kelvorn" "8700 tck 1: output"
expect_eq "$(rd32 "$bar" 0x600)" 0x7 "8700 after: driven GPIOs inputs again"
expect_eq "$(rd32 "$bar" 0x604)" 0x0 "8700 after: GPIO 10 input"
expect_eq "$(rd32 "$bar" 0x624)" 0x603 "8700 after: output data left alone"

# PEX 8700, "nipig2Scd": the GPIO registers in the 4 KB block named by bits
# 4..0 of 0x354 (here 3: 0x3A34, 0x3A38, 0x3A44, 0x3A48).
e2e_pci 0000:05:00.0 resource0 16384
bar=$(e2e_pci_file 0000:05:00.0 resource0)
wr32 "$bar" 0x354 0xffffffe3
e2e_start kelvorn nipig2Scd 0000:05:00.0 tms 1
sleep 2
expect_eq "$(rd32 "$bar" 0x3a34)" 0x24800000 "relocated hold: directions of GPIOs 9, 8, 7 and 6"
expect_eq "$(rd32 "$bar" 0x3a38)" 0x4 "relocated hold: GPIO 10 output"
expect_eq "$(rd32 "$bar" 0x3a48)" 0x500 "relocated hold: GPIO 10 and TMS high"
expect_eq "$(rd32 "$bar" 0x600)$(rd32 "$bar" 0x604)$(rd32 "$bar" 0x624)" 0x00x00x0 "relocated: default block untouched"
e2e_wait
expect_eq "$E2E_STATUS" 1 "relocated tms 1: status"
expect_eq "$(rd32 "$bar" 0x3a34)$(rd32 "$bar" 0x3a38)" 0x00x0 "relocated after: driven GPIOs inputs again"
expect_eq "$(rd32 "$bar" 0x3a48)" 0x500 "relocated after: output data left alone"

# PEX 8600, "rotanSeret": TDO is GPIO 13, bit 13 of the input data at 0x63C.
e2e_pci 0000:04:00.0 resource0 4096
bar=$(e2e_pci_file 0000:04:00.0 resource0)
wr32 "$bar" 0x63c 0x2000
wr32 "$bar" 0x644 0xffffffff
wr32 "$bar" 0x648 0xffffffff
e2e_run kelvorn rotanSeret 0000:04:00.0 tdo
expect_eq "$E2E_STATUS" 1 "8600 tdo high: status"
expect_eq "$E2E_OUT" "Kelvorn
tdo result is 1" "8600 tdo high: output"
expect_eq "$(rd32 "$bar" 0x644)" 0xffff2fff "8600: TCK, TDI and TMS left driven low"
expect_eq "$(rd32 "$bar" 0x648)" 0xfffffffe "8600: GPIO 16 left driven low"
expect_eq "$(rd32 "$bar" 0x62c)$(rd32 "$bar" 0x630)" 0x00x0 "8600: every GPIO an input again"

# "rotanMotub": TDO is GPIO 19, bit 3 of the second group's input data at 0x640.
wr32 "$bar" 0x63c 0xffffffff
wr32 "$bar" 0x640 0xfffffff7
e2e_run kelvorn rotanMotub 0000:04:00.0 tdo
expect_eq "$E2E_STATUS" 0 "8600 tdo low: status"
expect_eq "$E2E_OUT" "Kelvorn
tdo result is 0" "8600 tdo low: output"

e2e_done
