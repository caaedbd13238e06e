# kelvorn on an SB820: the GPIO control bytes in the fake resource5 while a
# set command holds TCK, after clean-up, and TDO reads. During the hold,
# runs for the same PCI device (any function) are refused with the exact
# message and status 1 and touch nothing; a lock file left behind does not
# block; the traces name the lock file and give the totals.
source "$(dirname "$0")/lib.sh" "$1"

e2e_cmdline "console=ttyS0 platform=mosavo"
e2e_pci 0000:00:14.0 resource5 $((0x1000))
e2e_pci 0000:00:14.3 resource5 $((0x1000))
res=$(e2e_pci_file 0000:00:14.0 resource5)
pins=(0x1bd 0x1ab 0x131 0x13c 0x129 0x132 0x13d)  # TCK, TDI, TMS, GPIOs 60, 41 and 50, TDO
# Every pin an input (bit 5) with bit 0 set, which must survive.
for off in "${pins[@]}"; do wr8 "$res" "$off" 0x21; done
lock=$(e2e_lock_dir)/0_0_20_jtag
echo "left behind" >"$lock"
chmod 0400 "$lock"

KELVORN_TRACE=Xilinx/1,5 e2e_hold kelvorn fodak 0000:00:14.0 tck 1
for addr in 0000:00:14.0 0000:00:14.3; do
  expect_run 1 "Kelvorn" "Lock file is locked by another process." "$addr refused" kelvorn fodak $addr tck 0
  expect_eq "$(wc -c <"$E2E_DIR/err")" 39 "$addr refused: 39 bytes, no newline"
done
# TCK, TDI, TMS and the GPIOs outputs, TCK and GPIO 60 high; TDO an input.
expect_eq "$(regs rd8 "$res" "${pins[@]}")" "0x41 0x1 0x1 0x41 0x1 0x1 0x21" "hold"
expect_eq "$(tr -d '\0' <"$(e2e_pci_file 0000:00:14.3 resource5)" | wc -c)" 0 "refused runs: function 3 untouched"
kill -0 "$E2E_BG" 2>/dev/null
expect_eq "$?" 0 "first run still holding"

e2e_wait
expect_eq "$E2E_STATUS $E2E_OUT" "1 Kelvorn" "tck 1: status and output"
expect_eq "$(grep -c ' XilIntf: lockfile is /var/lock/0_0_20_jtag$' <<<"$E2E_ERR")" 1 "tck 1: lock file traced"
expect_eq "$(sed -n 's/.* cleanup: //p' <<<"$E2E_ERR")" "jtag totals: tdo 0 tdi 0 tms 0 tck 1" "tck 1: totals"
expect_eq "$(regs rd8 "$res" "${pins[@]}")" "0x61 0x21 0x21 0x61 0x21 0x21 0x21" "cleanup: inputs, level bits kept"
expect_eq "$(stat -c '%a %s' "$lock")" "400 0" "lock file: mode 0400, truncated"
expect_eq "$(ls "$(e2e_lock_dir)")" 0_0_20_jtag "lock file: the only one"

# TDO is bit 7 of GPIO 61's control byte.
wr8 "$res" 0x13d 0x80
expect_run 1 "Kelvorn
tdo result is 1" "" "fodak tdo high" kelvorn fodak 0000:00:14.0 tdo
wr8 "$res" 0x13d 0x7f
expect_run 0 "Kelvorn
tdo result is 0" "" "komefi tdo low" kelvorn komefi 0000:00:14.0 tdo

e2e_done
