# The per-device lock on the built kelvorn: while one run holds TCK on the
# SB820 at 0000:00:14.0, runs for the same PCI device (any function) are
# refused with the exact message and status 1 and touch nothing; a lock
# file left behind does not block; the level-1 trace names the lock file.
source "$(dirname "$0")/lib.sh" "$1"

e2e_cmdline "console=ttyS0 platform=mosavo"
e2e_pci 0000:00:14.0 resource5 $((0x1000))
e2e_pci 0000:00:14.3 resource5 $((0x1000))
res=$(e2e_pci_file 0000:00:14.0 resource5)
res3=$(e2e_pci_file 0000:00:14.3 resource5)
wr8 "$res" 0x1bd 0x20
lock=$(e2e_lock_dir)/0_0_20_jtag
echo "left behind" >"$lock"
chmod 0400 "$lock"

export KELVORN_TRACE=Xilinx/1
e2e_start kelvorn fodak 0000:00:14.0 tck 1
unset KELVORN_TRACE
sleep 2
expect_eq "$(rd8 "$res" 0x1bd)" 0x40 "first run holds TCK high despite the stale lock file"

for addr in 0000:00:14.0 0000:00:14.3; do
  e2e_run kelvorn fodak $addr tck 0
  expect_eq "$E2E_STATUS" 1 "$addr refused: status"
  expect_eq "$E2E_OUT" "Kelvorn" "$addr refused: stdout"
  expect_eq "$E2E_ERR" "Lock file is locked by another process." "$addr refused: stderr"
  expect_eq "$(wc -c <"$E2E_DIR/err")" 39 "$addr refused: 39 bytes, no newline"
done
expect_eq "$(rd8 "$res" 0x1bd)" 0x40 "refused runs: TCK still high"
expect_eq "$(tr -d '\0' <"$res3" | wc -c)" 0 "refused runs: function 3 untouched"
kill -0 "$E2E_BG" 2>/dev/null
expect_eq "$?" 0 "first run still holding"

e2e_wait
expect_eq "$E2E_STATUS" 1 "first run: status"
expect_eq "$(grep -c ' XilIntf: lockfile is /var/lock/0_0_20_jtag$' <<<"$E2E_ERR")" 1 "first run: lock file traced"
expect_eq "$(rd8 "$res" 0x1bd)" 0x60 "first run: TCK an input after cleanup"
expect_eq "$(stat -c '%a %s' "$lock")" "400 0" "lock file: mode 0400, truncated"
expect_eq "$(ls "$(e2e_lock_dir)")" 0_0_20_jtag "lock file: the only one"

e2e_done
