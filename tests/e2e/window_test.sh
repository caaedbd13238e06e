# kelvorn given register files too short for the registers its backend
# touches (a mistyped PCI address looks like this on a board): every backend
# that maps a file refuses with exit status 1 and one line on stderr naming
# the window, the file, what the registers need and what the file holds,
# before any access: not one byte of the file changes, and nothing dies of
# SIGBUS or SIGSEGV.
source "$(dirname "$0")/lib.sh" "$1"

# Runs kelvorn ... tdo on a file of random bytes and checks the refusal.
#   refused WHAT WINDOW FILE NEEDS kelvorn-args...
refused() {
  local what=$1 window=$2 file=$3 needs=$4
  shift 4
  local before
  before=$(md5sum <"$file")
  e2e_run kelvorn "$@" tdo
  local path=${file#"$E2E_DIR"}
  path=${path/#\/pci//sys/bus/pci/devices}
  expect_eq "$E2E_STATUS" 1 "$what: status"
  expect_eq "$E2E_ERR" "register window $window: $path holds $(printf '0x%x' "$(stat -c %s "$file")") bytes, its registers need $needs" "$what: stderr"
  expect_eq "$(md5sum <"$file")" "$before" "$what: file unchanged"
}

# A file of N random bytes for a PCI function's resource.
pci_random() {  # address resource size
  e2e_pci "$1" "$2" 0
  head -c "$(($3))" /dev/urandom >"$(e2e_pci_file "$1" "$2")"
}

e2e_cmdline "console=ttyS0 platform=mosavo"  # neither the SoC's GPIO nor a Cedar Fork board
for size in 0 256; do
  pci_random 0000:00:14.0 resource5 $size
  refused "SB820, $size bytes" theSb820Ham "$(e2e_pci_file 0000:00:14.0 resource5)" 0x1be fodak 0000:00:14.0
  pci_random 0000:03:00.0 resource0 $size
  # GPIO 16 (held low) puts the highest register in the second group.
  refused "PEX 8600, $size bytes" theJamHam "$(e2e_pci_file 0000:03:00.0 resource0)" 0x64c rotanSeret 0000:03:00.0
  pci_random 0000:04:00.0 resource0 $size
  refused "PEX 8700, $size bytes" PlxPex8700Ham "$(e2e_pci_file 0000:04:00.0 resource0)" 0x628 tilegScd 0000:04:00.0
  refused "PEX 8700 relocated, $size bytes" PlxPex8700Ham "$(e2e_pci_file 0000:04:00.0 resource0)" 0x358 nipig2Scd 0000:04:00.0
  pci_random 0000:05:00.0 resource0 $size
  refused "Pericom block 0, $size bytes" PericomGen3Ham "$(e2e_pci_file 0000:05:00.0 resource0)" 0x334 togif_fan 0000:05:00.0
done
for size in 0 256 0x1000; do
  pci_random 0000:05:00.0 resource0 $size
  refused "Pericom block 0x10000, $size bytes" PericomGen3Ham "$(e2e_pci_file 0000:05:00.0 resource0)" 0x10334 togif 0000:05:00.0
done
for size in 0 256 0x1000 0x20000; do
  # The LED default words at 0x2003E lie past 128 KiB.
  pci_random 0000:03:00.0 resource0 $size
  refused "GbE, $size bytes" 0_3_0_jtag "$(e2e_pci_file 0000:03:00.0 resource0)" 0x20040 penetScd 0000:03:00.0
done

# The PEX 8700 block number comes from the switch: a file one byte short of
# the block's registers is refused after reading it and before using it.
for block in $(seq 0 31); do
  pci_random 0000:04:00.0 resource0 $((block * 0x1000 + 0xA4B))
  wr32 "$(e2e_pci_file 0000:04:00.0 resource0)" 0x354 $((0xe0 | block))  # bits 7..5 are not the block's
  refused "PEX 8700 block $block" PlxPex8700Ham "$(e2e_pci_file 0000:04:00.0 resource0)" \
    "$(printf '0x%x' $((block * 0x1000 + 0xA4C)))" gurideScd 0000:04:00.0
done

# A /dev/mem file too short for the Cedar Fork pads at 0xFD000000.
e2e_cmdline "console=ttyS0 platform=kubez"
for size in 0 256 0x1000 0x20000; do
  head -c $((size)) /dev/urandom >"$E2E_DIR/dev/mem"
  refused "Cedar Fork, $size bytes" CedarForkGpioHam "$E2E_DIR/dev/mem" 0xfdc508c4 kubezShimScd 0000:00:1f.0
done

e2e_done
