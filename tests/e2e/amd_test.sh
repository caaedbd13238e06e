# The SoC GPIO backend in the built binary: which boards give it their
# device names, and its processor check, which comes before /dev/mem.
source "$(dirname "$0")/lib.sh" "$1"

# The backend reads this machine's CPUID; what it must say follows from the
# processor as /proc/cpuinfo reports it, read here, outside the namespace.
family=$(awk -F': *' '/^cpu family/ {print $2; exit}' /proc/cpuinfo)
model=$(awk -F': *' '/^model[[:space:]]*:/ {print $2; exit}' /proc/cpuinfo)
soc_supported() {  # family model
  case $1 in
    21) (($2 >= 0x60)) ;;
    22) (($2 <= 0x0f || ($2 >= 0x30 && $2 <= 0x3f))) ;;
    23) (($2 == 0x01 || ($2 >= 0x10 && $2 <= 0x2f))) ;;
    25) (($2 == 0x44)) ;;
    *) false ;;
  esac
}
if ((family < 15)); then
  cpu_line="Unsupported family $family model $((model & 15))"  # only the base family and model count
elif soc_supported "$family" "$model"; then
  cpu_line="Could not open gpio device, errno 2"  # the namespace has no /dev/mem
else
  cpu_line="Unsupported family $family model $model"
fi

e2e_cmdline "console=ttyS0 platform=gozip"
# Taken by the SoC backend, which stops at the processor.
expect_run 1 "Kelvorn
$cpu_line" "" "fodak on gozip" kelvorn fodak 0000:00:14.0 tck 1
expect_eq "$(ls "$(e2e_lock_dir)")" "0_0_20_jtag" "fodak on gozip: lock taken first"

# lubug: known to the platform detection, but not a board this backend serves.
e2e_cmdline "console=ttyS0 quiet platform=lubug"
for name in telubSwitchMain gogosScd mafulprimeScd dizufScd; do
  e2e_run kelvorn "$name" 0000:00:14.0 tdo
  expect_eq "$E2E_STATUS" 253 "$name on a board of no listed platform: status"
  expect_eq "$(tail -n1 <<<"$E2E_OUT")" "internal error setting up interfaces" "$name: no backend"
done
expect_eq "$(ls "$(e2e_lock_dir)")" "0_0_20_jtag" "no further lock taken"

e2e_done
