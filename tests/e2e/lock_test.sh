# The device lock between processes: while kelvorn holds TCK on an SB820,
# runs for the same PCI device (any function) are refused with the exact
# message and status 1 and touch nothing; a lock file left behind does not
# block, and the holder's lock file is mode 0400 and empty.
source "$(dirname "$0")/lib.sh" "$1"

e2e_cmdline "console=ttyS0 platform=mosavo"
e2e_pci 0000:00:14.0 resource5 $((0x1000))
e2e_pci 0000:00:14.3 resource5 $((0x1000))
lock=$(e2e_lock_dir)/0_0_20_jtag
echo "left behind" >"$lock"
chmod 0400 "$lock"

e2e_hold kelvorn fodak 0000:00:14.0 tck 1
for addr in 0000:00:14.0 0000:00:14.3; do
  expect_run 1 "Kelvorn" "Lock file is locked by another process." "$addr refused" kelvorn fodak $addr tck 0
  expect_eq "$(wc -c <"$E2E_DIR/err")" 39 "$addr refused: 39 bytes, no newline"
done
expect_eq "$(tr -d '\0' <"$(e2e_pci_file 0000:00:14.3 resource5)" | wc -c)" 0 "refused runs: function 3 untouched"
expect_eq "$(kill -0 "$E2E_BG" && echo holding)" holding "first run still holding"
e2e_wait
expect_eq "$E2E_STATUS $E2E_OUT" "1 Kelvorn" "tck 1: status and output"
expect_eq "$(stat -c '%a %s' "$lock")" "400 0" "lock file: mode 0400, truncated"
expect_eq "$(ls "$(e2e_lock_dir)")" 0_0_20_jtag "lock file: the only one"

e2e_done
