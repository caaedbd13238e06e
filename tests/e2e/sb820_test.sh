# kelvorn on an SB820: the GPIO control bytes in the fake resource5 while a
# set command holds TCK, after clean-up, the totals trace, and TDO reads.
source "$(dirname "$0")/lib.sh" "$1"

e2e_cmdline "console=ttyS0 platform=mosavo"
e2e_pci 0000:00:14.0 resource5 $((0x1000))
res=$(e2e_pci_file 0000:00:14.0 resource5)
# Every pin an input (bit 5) with bit 0 set, which must survive.
for off in 0x1bd 0x1ab 0x131 0x13d 0x13c 0x129 0x132; do wr8 "$res" $off 0x21; done

export KELVORN_TRACE=Xilinx/5
e2e_start kelvorn fodak 0000:00:14.0 tck 1
unset KELVORN_TRACE
sleep 2
expect_eq "$(rd8 "$res" 0x1bd)" 0x41 "hold: TCK an output, high"
expect_eq "$(rd8 "$res" 0x1ab)" 0x1 "hold: TDI an output, low"
expect_eq "$(rd8 "$res" 0x131)" 0x1 "hold: TMS an output, low"
expect_eq "$(rd8 "$res" 0x13c)" 0x41 "hold: GPIO 60 an output, high"
expect_eq "$(rd8 "$res" 0x129)" 0x1 "hold: GPIO 41 an output, low"
expect_eq "$(rd8 "$res" 0x132)" 0x1 "hold: GPIO 50 an output, low"
expect_eq "$(rd8 "$res" 0x13d)" 0x21 "hold: TDO an input"
e2e_wait
expect_eq "$E2E_STATUS" 1 "tck 1: status"
expect_eq "$E2E_OUT" "Kelvorn" "tck 1: output"
expect_eq "$(sed -n 's/.* cleanup: //p' <<<"$E2E_ERR")" "jtag totals: tdo 0 tdi 0 tms 0 tck 1" "tck 1: totals"
expect_eq "$(rd8 "$res" 0x1bd)" 0x61 "cleanup: TCK an input, its level bit kept"
expect_eq "$(rd8 "$res" 0x1ab)" 0x21 "cleanup: TDI an input"
expect_eq "$(rd8 "$res" 0x131)" 0x21 "cleanup: TMS an input"
expect_eq "$(rd8 "$res" 0x13c)" 0x61 "cleanup: GPIO 60 an input"
expect_eq "$(rd8 "$res" 0x129)" 0x21 "cleanup: GPIO 41 an input"
expect_eq "$(rd8 "$res" 0x132)" 0x21 "cleanup: GPIO 50 an input"
expect_eq "$(rd8 "$res" 0x13d)" 0x21 "cleanup: TDO as it was"

# TDO is bit 7 of GPIO 61's control byte.
wr8 "$res" 0x13d 0x80
e2e_run kelvorn fodak 0000:00:14.0 tdo
expect_eq "$E2E_STATUS" 1 "tdo high: status"
expect_eq "$E2E_OUT" "Kelvorn
tdo result is 1" "tdo high: output"
wr8 "$res" 0x13d 0x7f
e2e_run kelvorn komefi 0000:00:14.0 tdo
expect_eq "$E2E_STATUS" 0 "tdo low: status"
expect_eq "$E2E_OUT" "Kelvorn
tdo result is 0" "tdo low: output"

e2e_done
