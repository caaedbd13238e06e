# kelvorn-serve on simulated boards with real clients: Debian's openocd
# scans the chain over remote_bitbang through four backends (SoC GPIO,
# SB820, PEX 8600, GbE) and plays an SVF file that programs the simulated
# programmable device, openFPGALoader detects the chain over XVC; then the
# server's refusals at start-up and their statuses.
source "$(dirname "$0")/lib.sh" "$1"
source "$(dirname "$0")/serve_lib.sh"

for tool in openocd openFPGALoader; do
  command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done

# The scan_chain table as "tap enabled idcode expected irlen", one tap a line.
scan_table() { awk '$2 ~ /^(c|auto)[0-9]+\.tap$/ { print $2, $3, $4, $5, $6 }' <<<"$OPENOCD_OUT"; }
# The table for a chain: declared taps (c0, c1, ...) or found ones (auto0, ...).
chain_table() {  # chain tap-prefix
  tr , '\n' <<<"$1" | awk -F: -v p="$2" '{ print p (NR - 1) ".tap Y", $1, (p == "c" ? $1 : "0x00000000"), $2 }'
}

# openocd's scan through each backend, with a chain of its own: once with
# the taps declared (openocd checks the IDCODEs and IR captures), once
# probing (it finds the IDCODEs and measures the IR lengths itself).
while read -r what board chain device address; do
  serve_start ${board//,/ } --chain "$chain" -- "$device" "$address" || continue
  openocd_run "$(chain_taps "$chain")" "echo [capture scan_chain]"
  expect_eq "$OPENOCD_STATUS $(grep -c '^Error' <<<"$OPENOCD_OUT")" "0 0" "$what: openocd status and errors"
  expect_eq "$(scan_table)" "$(chain_table "$chain" c)" "$what: scan_chain, taps declared"
  openocd_run "" "echo [capture scan_chain]"
  expect_eq "$OPENOCD_STATUS $(grep -c '^Error' <<<"$OPENOCD_OUT")" "0 0" "$what: probing openocd status and errors"
  expect_eq "$(scan_table)" "$(chain_table "$chain" auto)" "$what: scan_chain, probed"
  serve_stop
  expect_eq "$SERVE_STATUS" 0 "$what: server status"
  expect_eq "$(serve_lines)" "kelvorn-serve: listening on 127.0.0.1:$SERVE_PORT (remote-bitbang) for $device at $address
$(serve_lines | grep -E '^kelvorn-serve: PEER done: [1-9][0-9]* bytes in, [1-9][0-9]* bytes out, [1-9][0-9]* TCK cycles, T s$')
kelvorn-serve: stopped by SIGTERM" "$what: server lines"
  expect_eq "$(serve_lines | grep -c ' done: ')" 2 "$what: two connections"
done <<'EOF'
SoC-GPIO --platform,gozip,--cpu,0x16:0x30 0x0a5c7035:8,0x1b4d2093:6 fodak 0000:00:14.0
SB820 --platform,mosavo 0x12345679:5,0x0abcdef1:7,0x2468ace1:10 fodak 0000:00:14.0
PEX-8600 --cpu,0x16:0x30 0x0362d093:6 rotanMotub 0000:03:00.0
GbE --cpu,0x16:0x30 0x1b4d2093:6,0x0a5c7035:8,0x012b5043:8 penetScd 0000:02:00.0
EOF

# openFPGALoader's XVC client; --once: the server ends with its client.
if serve_start --chain 0x012b5043:8,0x0362d093:6 -- --protocol xvc --once rotanMotub 0000:03:00.0; then
  out=$(timeout 120 openFPGALoader -c xvc-client --ip 127.0.0.1 --port "$SERVE_PORT" --detect 2>&1)
  expect_eq "$?" 0 "openFPGALoader: status"
  expect_eq "$(grep -E 'idcode|irlength' <<<"$out" | tr -d '\t')" "idcode 0x362d093
irlength 6
idcode 0x12b5043
irlength 8" "openFPGALoader: the chain"
  serve_wait
  expect_eq "$SERVE_STATUS" 0 "openFPGALoader: server status after its one client"
  expect_eq "$(serve_lines | grep -c -E '^kelvorn-serve: PEER done: [1-9][0-9]* bytes in, [1-9][0-9]* bytes out, [1-9][0-9]* TCK cycles, T s$')" 1 \
    "openFPGALoader: its connection's line"
fi

# openocd's SVF player programs and verifies the simulated programmable
# device with the file kelvorn-vectors writes: the memory holds the image
# byte for byte. Then the same file with one TDO bit flipped (bit 0 of the
# fifth row read back): openocd names the line and fails.
chain=0x0a5c7035:8,0x1b4d2093:6:mem=128x256,0x2468ace1:10
head -c 4096 /dev/urandom >"$d/image.bin"
e2e_run kelvorn-vectors --chain "$chain" --svf "$d/image.svf" "$d/image.bin"
expect_eq "$E2E_STATUS" 0 "vectors: status"
line=$(grep -n ' TDO (' "$d/image.svf" | sed -n '5s/:.*//p')
tdo=$(sed -n "${line}s/.* TDO (\([0-9a-f]*\)).*/\1/p" "$d/image.svf")
sed "${line}s/ TDO ($tdo)/ TDO (${tdo%?}$(printf %x $((0x${tdo: -1} ^ 1))))/" "$d/image.svf" >"$d/flipped.svf"
for f in image flipped; do
  serve_start --chain "$chain" --dump-memory "$d/mem.bin" -- rotanMotub 0000:03:00.0 || continue
  openocd_run "$(chain_taps "$chain")" "svf -quiet $d/$f.svf"
  serve_stop
  expect_eq "$SERVE_STATUS $(serve_lines | grep -cE '^kelvorn-serve: PEER done: .* [1-9][0-9]* TCK cycles, T s$')" "0 1" \
    "openocd $f.svf: the server's status and its one connection"
  if [ $f = image ]; then
    expect_eq "$OPENOCD_STATUS $(grep -c '^Error' <<<"$OPENOCD_OUT")" "0 0" "openocd svf: status and errors"
    expect_eq "$(cmp "$d/mem.bin" "$d/image.bin" && echo same)" same "openocd svf: the memory holds the image"
  else
    expect_eq "$OPENOCD_STATUS $(grep '^Error: tdo' <<<"$OPENOCD_OUT")" "1 Error: tdo check error at line $line" \
      "openocd svf, a TDO bit flipped: status and the line"
  fi
done

# SIGQUIT (Ctrl-\), SIGTERM or SIGHUP during a client's session: the server stops the
# normal way, its last act the pins' release (the VCD ends with TCK, TMS and
# TDI undriven), status 0.
for sig in QUIT TERM HUP; do
  serve_start --vcd "$d/quit.vcd" -- rotanMotub 0000:03:00.0 || continue
  python3 - "$SERVE_PORT" >"$E2E_DIR/client.out" <<'EOF' &
import socket, sys, time
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
s.sendall(b"7R")  # TCK, TMS and TDI driven high, then a read: the write is done
s.recv(1)
print("ready", flush=True)
time.sleep(30)  # the session stays open until the server stops
EOF
  client=$!
  e2e_await "$client" '/^ready$/p' "SIG$sig: the client's write is not done" "$E2E_DIR/client.out"
  kill -"$sig" "$SERVE_PID"
  serve_wait
  kill "$client" 2>/dev/null; wait "$client" 2>/dev/null
  expect_eq "$SERVE_STATUS|$(serve_lines | tail -n1)" "0|kelvorn-serve: stopped by SIG$sig" "SIG$sig during a session: status, last line"
  expect_eq "$(vcd_end "$d/quit.vcd" C M I)" "zC zM zI" "SIG$sig during a session: TCK, TMS and TDI released last"
done

# Refusals at start-up.
expect_run 3 "CHECKING FPGA nothing" "kelvorn-serve: no backend serves nothing on this board" "no backend" \
  kelvorn-sim serve --listen 127.0.0.1:0 nothing 0000:00:14.0
expect_run 2 "" "address: wants a PCI address dddd:bb:dd.f, for example 0000:03:00.0
Run with --help for more information." "bad PCI address" kelvorn-sim serve rotanMotub 0000:03:00
expect_run 2 "" "--listen: wants ADDRESS:PORT or :PORT, for example 127.0.0.1:3335
Run with --help for more information." "listen without a port" kelvorn-sim serve --listen 127.0.0.1 rotanMotub 0000:03:00.0
expect_run 2 "" "--listen: not a numeric address: localhost
Run with --help for more information." "listen on a name" kelvorn-sim serve --listen localhost:0 rotanMotub 0000:03:00.0
expect_run 2 "" "--max-vector: Value 65537 not in range 1 to 65536
Run with --help for more information." "max-vector past the limit" \
  kelvorn-sim serve --protocol xvc --max-vector 65537 rotanMotub 0000:03:00.0
if serve_start -- rotanMotub 0000:03:00.0; then
  expect_run 4 "" "kelvorn-serve: cannot listen on 127.0.0.1:$SERVE_PORT: Address already in use" "port in use" \
    kelvorn-sim serve --listen ":$SERVE_PORT" penetScd 0000:02:00.0
  serve_stop
  expect_eq "$SERVE_STATUS" 0 "idle server: status"
fi
e2e_run kelvorn-serve --help
expect_eq "$E2E_STATUS $(grep -c -- '--max-vector' <<<"$E2E_OUT")" "0 1" "kelvorn-serve --help"
expect_eq "$(ls "$(e2e_lock_dir)")" "" "no lock under /var/lock"

e2e_done
