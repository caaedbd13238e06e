# kelvorn-serve under systemd's socket activation, on the simulated board:
# systemd-socket-activate (Debian's systemd) listens, starts the server at
# the first connection and hands it the socket; OpenOCD, connected before
# the server existed, scans the chain through it. Then the command line of
# the packaged kelvorn-serve@.service, its instance FPGA:ADDRESS split as
# systemd and sh split it, with options from KELVORN_SERVE_OPTIONS; two
# sockets handed over are refused; the unit files pass systemd-analyze.
source "$(dirname "$0")/lib.sh" "$1"
source "$(dirname "$0")/serve_lib.sh"

for tool in openocd systemd-socket-activate systemd-analyze; do
  command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done
units=$(cd "$(dirname "$0")/../../serve/systemd" && pwd)
chain=0x1b4d2093:6,0x0a5c7035:8
device=(rotanMotub 0000:04:00.0)

# systemd-socket-activate hands its program a fresh environment: the
# sanitizers' options go along by name.
pass_env=()
for v in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do [ -n "${!v:-}" ] && pass_env+=(-E "$v"); done

free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
# Starts "systemd-socket-activate -l 127.0.0.1:PORT [-E VAR=VALUE] COMMAND" in
# the background, COMMAND to run in the test's namespace: nothing runs it yet.
activate() {  # port activate-options... -- command...
  local port=$1 opts=()
  shift
  while [ "$1" != -- ]; do opts+=("$1"); shift; done
  shift
  _e2e_cmd "$@"
  : >"$E2E_DIR/serve.err"
  systemd-socket-activate -l "127.0.0.1:$port" "${pass_env[@]}" "${opts[@]}" "${E2E_ARGV[@]}" \
    >"$E2E_DIR/serve.out" 2>"$E2E_DIR/serve.err" &
  SERVE_PID=$!
  SERVE_PORT=$port
  e2e_await "$SERVE_PID" '/Listening on/p' "systemd-socket-activate does not listen" "$E2E_DIR/serve.err"
}
# What a socket unit's server printed, without systemd-socket-activate's lines.
served_lines() { serve_lines | grep '^kelvorn-serve: '; }

# ---- OpenOCD through the socket systemd handed over ----

port=$(free_port)
activate "$port" -- kelvorn-sim --chain "$chain" serve "${device[@]}"
sleep 0.3
expect_eq "$(grep -c '^kelvorn-serve' "$E2E_DIR/serve.err")" 0 "before a client: no server runs"
openocd_run "$(chain_taps "$chain")" "echo [capture scan_chain]"
expect_eq "$OPENOCD_STATUS $(grep -c '^Error' <<<"$OPENOCD_OUT")" "0 0" "socket activation: openocd status and errors"
expect_eq "$(awk '$2 ~ /^c[0-9]\.tap$/ { print $2, $4, $6 }' <<<"$OPENOCD_OUT")" \
  "c0.tap 0x1b4d2093 6
c1.tap 0x0a5c7035 8" "socket activation: openocd scans the chain"
serve_stop
expect_eq "$SERVE_STATUS $(served_lines | head -n1)" \
  "0 kelvorn-serve: listening on 127.0.0.1:$port (remote-bitbang) for rotanMotub at 0000:04:00.0" \
  "socket activation: status; the server listens on the socket handed over"
expect_eq "$(served_lines | tail -n1)" "kelvorn-serve: stopped by SIGTERM" "socket activation: stopped"

# ---- the service unit's command line ----

# ExecStart as systemd passes it on: "$$" is "$", "%%" is "%", %i the instance.
exec_start=$(sed -n 's/^ExecStart=//p' "$units/kelvorn-serve@.service")
exec_start=${exec_start//\$\$/\$}
exec_start=${exec_start//%%/%}
exec_start=${exec_start//%i/rotanMotub:0000:04:00.0}
eval "unit_argv=($exec_start)"
expect_eq "${unit_argv[*]:0:3}" "/bin/sh -c exec /usr/bin/kelvorn-serve \$KELVORN_SERVE_OPTIONS \"\${0%%:*}\" \"\${0#*:}\"" \
  "service: ExecStart"
# The same shell, with kelvorn-sim serve standing for /usr/bin/kelvorn-serve.
script=${unit_argv[2]/\/usr\/bin\/kelvorn-serve/\"\$E2E_SIM\" --chain $chain serve}
port=$(free_port)
E2E_SIM=$E2E_DIR/bin/kelvorn-sim activate "$port" -E E2E_SIM \
  -E "KELVORN_SERVE_OPTIONS=--protocol xvc --max-vector 64" -- /bin/sh -c "$script" "${unit_argv[@]:3}"
answer=$(python3 - "$port" <<'EOF'
import socket, sys
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
s.sendall(b"getinfo:")
b = b""
while not b.endswith(b"\n"):
    c = s.recv(64)
    if not c: break
    b += c
print(b.decode().strip())
EOF
)
expect_eq "$answer" "xvcServer_v1.0:64" "service: XVC with the options from KELVORN_SERVE_OPTIONS"
serve_stop
expect_eq "$SERVE_STATUS $(served_lines | head -n1)" \
  "0 kelvorn-serve: listening on 127.0.0.1:$port (xvc) for rotanMotub at 0000:04:00.0" \
  "service: the instance split into device and address"

# ---- refused: two sockets ----

port=$(free_port)
port2=$(free_port)
activate "$port" -l "127.0.0.1:$port2" -- kelvorn-sim --chain "$chain" serve "${device[@]}"
python3 -c 'import socket, sys; socket.create_connection(("127.0.0.1", int(sys.argv[1]))).recv(1)' "$port" 2>/dev/null
serve_wait
expect_eq "$SERVE_STATUS $(served_lines)" \
  "4 kelvorn-serve: cannot listen on the socket systemd handed over: 2 sockets handed over; kelvorn-serve takes one" \
  "two sockets: refused"

# ---- the unit files ----

out=$(cd "$units" && systemd-analyze verify --man=no kelvorn-serve@.socket kelvorn-serve@.service 2>&1)
expect_eq "$?: $out" "0: " "systemd-analyze verify"
expect_eq "$(grep -c '^ListenStream=127\.0\.0\.1:' "$units/kelvorn-serve@.socket")" 1 "socket: loopback only"
for opt in NoNewPrivileges=yes PrivateTmp=yes ProtectHome=yes DevicePolicy=closed 'DeviceAllow=/dev/mem rw' \
    CapabilityBoundingSet=CAP_SYS_RAWIO; do
  expect_eq "$(grep -cxF "$opt" "$units/kelvorn-serve@.service")" 1 "service: $opt"
done

e2e_done
