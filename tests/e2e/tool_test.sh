# The kelvorn binary's refusals: exact output and exit statuses.
source "$(dirname "$0")/lib.sh" "$1"

usage='USAGE:  kelvorn <fpga> <pci address> { tck | tms | tdi | tdo } [ 0 | 1 ]
sets the tck,tms,tdi jtag pin, reads tdo, returns value
EXAMPLE:  kelvorn fodak 0000:00:14.0 tck 1'

e2e_run kelvorn
expect_eq "$E2E_STATUS" 252 "no arguments: status"
expect_eq "$E2E_OUT" "Kelvorn
missing argument
$usage" "no arguments: output"

e2e_run kelvorn fodak 0000:00:14 tck 1
expect_eq "$E2E_STATUS" 254 "address without function: status"
expect_eq "$E2E_OUT" "Kelvorn
internal error parsing pciAddr" "address without function: output"

e2e_run kelvorn noSuchDevice 0000:00:14.0 tck 1
expect_eq "$E2E_STATUS" 253 "unknown device: status"
expect_eq "$(tail -n1 <<<"$E2E_OUT")" "internal error setting up interfaces" "unknown device: output"
expect_eq "$E2E_ERR" "" "unknown device: nothing on stderr"
expect_eq "$(ls "$(e2e_lock_dir)")" "" "unknown device: no lock taken"

e2e_done
