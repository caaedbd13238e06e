# kelvorn-play on an SB820 whose register file is a sparse resource5 (TDO
# reads bit 7 of 0x13d): SIGTERM during a long RUNTEST ends it by that
# signal and leaves every pin an input; in test mode the lock and the
# register file are the ones under /tmp. (A TDO mismatch: play_test.cpp and
# program_test.sh.)
source "$(dirname "$0")/lib.sh" "$1"

e2e_cmdline "console=ttyS0 platform=mosavo"
e2e_pci 0000:00:14.0 resource5 $((0x1000))
res=$(e2e_pci_file 0000:00:14.0 resource5)
pins=(0x1bd 0x1ab 0x131 0x13c 0x129 0x132)  # TCK, TDI, TMS, GPIOs 60, 41 and 50
for off in "${pins[@]}" 0x13d; do wr8 "$res" "$off" 0x21; done  # inputs; TDO low
# One digit a pin: 1 when its output is off (bit 5).
released() {
  local f=$1 off out=
  for off in "${pins[@]}"; do out+=$(($(rd8 "$f" "$off") & 0x20 ? 1 : 0)); done
  echo "$out"
}

printf 'STATE RESET;\nRUNTEST 60 SEC;\n' >"$d/long.svf"
e2e_start kelvorn-play fodak 0000:00:14.0 "$d/long.svf"
sleep 1.5
expect_eq "$(released "$res")" 000000 "long run: pins driven"
kill -TERM "$E2E_BG"
e2e_wait
expect_eq "$E2E_STATUS $E2E_OUT$E2E_ERR" "143 " "SIGTERM: status, nothing printed"
expect_eq "$(released "$res")" 111111 "SIGTERM: every pin released"

# Test mode: the register file /tmp/xilinxTestMemMapFile, TDO high there.
mem=$(e2e_tmp_dir)/xilinxTestMemMapFile
truncate -s $((0x1000)) "$mem"
for off in "${pins[@]}"; do wr8 "$mem" "$off" 0x21; done
wr8 "$mem" 0x13d 0xa1
printf 'STATE RESET;\nSDR 8 TDI(00) TDO(FF);\n' >"$d/ok.svf"
expect_err 0 "" "test mode: status" kelvorn-play --test-mode fodak 0000:00:14.0 "$d/ok.svf"
expect_eq "$(sed -E 's/ at [0-9.]+ [kM]?Hz, [0-9.]+ s$//' <<<"$E2E_OUT")" \
  "kelvorn-play: $d/ok.svf: 2 statements, 1 scans, 8 bits, 24 TCK cycles" "test mode: summary"
expect_eq "$(released "$mem")" 111111 "test mode: every pin released"
expect_eq "$(ls "$(e2e_tmp_dir)")" "xilinxTestLockFile
xilinxTestMemMapFile" "test mode: lock under /tmp"
expect_eq "$(ls "$(e2e_lock_dir)")" 0_0_20_jtag "only the first runs locked under /var/lock"

e2e_done
