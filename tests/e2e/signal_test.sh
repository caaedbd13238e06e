# kelvorn killed during the hold of a set command: SIGINT, SIGTERM, SIGHUP and
# SIGQUIT run the backend's clean-up once, and the process still dies of that
# signal (the shell sees 128 + n). Checked on an SB820 and on a GbE board,
# in the register files: every pin the run drove is an input again.
source "$(dirname "$0")/lib.sh" "$1"
ulimit -c 0  # SIGQUIT dumps no core here

e2e_cmdline "console=ttyS0 platform=mosavo"
e2e_pci 0000:00:14.0 resource5 $((0x1000))
res=$(e2e_pci_file 0000:00:14.0 resource5)
sb820_pins=(0x1bd 0x1ab 0x131 0x13c 0x129 0x132 0x13d)  # TCK, TDI, TMS, GPIOs 60, 41 and 50, TDO
e2e_pci 0000:03:00.0 resource0 $((0x100000))
nic=$(e2e_pci_file 0000:03:00.0 resource0)

# Starts a set command and sends the signal one second into its ten-second
# hold, as a terminal would send it (e2e_start).
killed_in_hold() {  # signal kelvorn-args...
  local sig=$1
  shift
  e2e_start kelvorn "$@"
  sleep 1
  kill -s "$sig" "$E2E_BG"
  e2e_wait
}

for sig in INT TERM HUP QUIT; do
  num=$(kill -l "$sig")
  for off in "${sb820_pins[@]}"; do wr8 "$res" "$off" 0x21; done  # inputs, bit 0 set
  killed_in_hold "$sig" fodak 0000:00:14.0 tck 1
  expect_eq "$E2E_STATUS $E2E_OUT" "$((128 + num)) Kelvorn" "SB820 SIG$sig: died of the signal"
  # Cleaned up: every pin an input again (bit 5), TCK's level kept high.
  expect_eq "$(regs rd8 "$res" "${sb820_pins[@]}")" "0x61 0x21 0x21 0x61 0x21 0x21 0x21" "SB820 SIG$sig: pins inputs"

  wr32 "$nic" 0x0 0x81040241
  wr32 "$nic" 0x18 0x12340880
  wr32 "$nic" 0xE000 0x5a7e3c1f
  wr8 "$nic" 0x2003E 0x0f
  wr8 "$nic" 0x2003F 0x7a
  killed_in_hold "$sig" penetScd 0000:03:00.0 tck 1
  expect_eq "$E2E_STATUS $E2E_OUT" "$((128 + num)) Kelvorn" "GbE SIG$sig: died of the signal"
  # SDP0..3 inputs with their last levels; the LED back to its default word.
  expect_eq "$(regs rd32 "$nic" 0x0 0x18 0xE000)" "0x810c0241 0x123400c0 0x5a7a3c1f" "GbE SIG$sig: pins inputs, LED restored"
done

# Outside the hold nothing changes: a run that is not killed cleans up once (the totals line once).
KELVORN_TRACE=Xilinx/5 e2e_run kelvorn fodak 0000:00:14.0 tdo
expect_eq "$(grep -c 'jtag totals' <<<"$E2E_ERR")" 1 "tdo: one clean-up"

e2e_done
