# kelvorn on a Pericom Gen3 switch and on an Intel GbE controller: the
# direction, data and LED registers in the fake BAR 0 files while a set
# command holds its pin, after clean-up, and the TDO reads.
source "$(dirname "$0")/lib.sh" "$1"

# ---- Pericom Gen3: "togif" uses the GPIO block at 0x10000 ----
e2e_pci 0000:05:00.0 resource0 $((0x20000))
sw=$(e2e_pci_file 0000:05:00.0 resource0)
wr32 "$sw" 0x1031C 0x5a5a5a91  # direction: TCK/TMS/TDI inputs, TDO (bit 7) output
wr32 "$sw" 0x10330 0xffffffff  # output data
e2e_hold kelvorn togif 0000:05:00.0 tck 1
# Direction bits 1, 3, 5 outputs, bit 7 input, the rest as read; TCK high, TMS and TDI low; block 0 untouched.
expect_eq "$(regs rd32 "$sw" 0x1031C 0x10330 0x31C)" "0x5a5a5a3b 0xfffffff9 0x0" "togif hold"
e2e_wait
# The Cedar Fork factory, asked just before this one, reports every name it sees.
expect_eq "$E2E_STATUS $E2E_OUT" "1 Kelvorn
CHECKING FPGA togif" "togif tck 1: status and output"
# Cleanup clears direction bits 1, 3 and 5 only and leaves the output data alone.
expect_eq "$(regs rd32 "$sw" 0x1031C 0x10330)" "0x5a5a5a11 0xfffffff9" "togif cleanup"
expect_eq "$(ls "$(e2e_lock_dir)")" 0_5_0_jtag "togif: lock file"

# "togif_fan" reads TDO (GPIO 3) from block 0.
wr32 "$sw" 0x328 0x8
expect_run 1 "Kelvorn
CHECKING FPGA togif_fan
tdo result is 1" "" "togif_fan tdo" kelvorn togif_fan 0000:05:00.0 tdo

# ---- Intel GbE: SDP0 TCK, SDP1 TDI (CTRL), SDP2 TMS, SDP3 TDO (CTRL_EXT) ----
e2e_pci 0000:03:00.0 resource0 $((0x100000))  # the whole 1 MiB window
nic=$(e2e_pci_file 0000:03:00.0 resource0)
wr32 "$nic" 0x0 0x81040241     # CTRL
wr32 "$nic" 0x18 0x12340880    # CTRL_EXT: SDP3 an output, its data high
wr32 "$nic" 0xE000 0x5a7e3c1f  # LED control
wr8 "$nic" 0x2003E 0x0f        # LED0/LED2 default word 0x7a0f:
wr8 "$nic" 0x2003F 0x7a        #   LED2 mode 0xa, no blink, bit 5 clear
e2e_hold kelvorn penetScd 0000:03:00.0 tms 1
# CTRL: TDI high, TCK low, both outputs; CTRL_EXT: TMS a high output, TDO
# an input; LED control: LED2 mode 1 with blink, bit 5 set.
expect_eq "$(regs rd32 "$nic" 0x0 0x18 0xE000)" "0x81c80241 0x123404c0 0x5af13c3f" "penetScd hold"
e2e_wait
expect_eq "$E2E_STATUS $E2E_OUT" "1 Kelvorn" "penetScd tms 1: status and output"
# The SDPs inputs with their levels kept; LED2 and bit 5 from the default word.
expect_eq "$(regs rd32 "$nic" 0x0 0x18 0xE000)" "0x81080241 0x123400c0 0x5a7a3c1f" "penetScd cleanup"

# TDO is bit 7 of CTRL_EXT as read.
KELVORN_TRACE=Xilinx/2 e2e_run kelvorn ratumiScd 0000:03:00.0 tdo
expect_eq "$E2E_STATUS $E2E_OUT" "1 Kelvorn
tdo result is 1" "ratumiScd tdo high: status and output"
expect_eq "$(grep -c 'tdo: tdo reg\[1\] 0x123404c0 Tdo 1$' <<<"$E2E_ERR")" 1 "ratumiScd tdo high: level-2 trace"
wr32 "$nic" 0x18 0x12340040
expect_run 0 "Kelvorn
tdo result is 0" "" "ratumiScd tdo low" kelvorn ratumiScd 0000:03:00.0 tdo

e2e_done
