# Helpers for end-to-end tests of kelvorn-serve on simulated boards with
# real clients, on top of lib.sh (source that first). The server listens on
# 127.0.0.1 on a port the system picks; every server started is stopped.
#
#   serve_start --platform mosavo --chain 0x0a5c7035:8 -- fodak 0000:00:14.0   # board options -- serve arguments
#   openocd_run "$(chain_taps 0x0a5c7035:8)" "echo [capture scan_chain]"    # openocd over remote_bitbang
#   serve_stop                                  # SIGTERM; status in $SERVE_STATUS, lines in $SERVE_ERR
#   expect_eq "$(serve_lines)" "..." "what"    # the server's own lines, durations as T
#
# An SVF test: serve_start ... -- <fpga> <pci address>; openocd_run "$(chain_taps ...)" "svf -quiet FILE"; serve_stop.

SERVE_PID=
SERVE_PORT=
trap 'serve_kill; rm -rf "$E2E_DIR"' EXIT

# Board options (kelvorn-sim's) before "--", kelvorn-serve's arguments after
# it. Returns once the server listens; the port is in $SERVE_PORT.
serve_start() {
  local board=()
  while (($#)) && [ "$1" != -- ]; do board+=("$1"); shift; done
  shift
  _e2e_cmd kelvorn-sim "${board[@]}" serve --listen 127.0.0.1:0 "$@"
  : >"$E2E_DIR/serve.err"
  # A background job starts with SIGINT and SIGQUIT ignored, and the server
  # leaves ignored signals alone (as under nohup): give it a terminal's defaults.
  env --default-signal=INT,QUIT "${E2E_ARGV[@]}" >"$E2E_DIR/serve.out" 2>"$E2E_DIR/serve.err" &
  SERVE_PID=$!
  SERVE_PORT=
  e2e_await "$SERVE_PID" 's/^kelvorn-serve: listening on 127\.0\.0\.1:\([0-9]*\) .*/\1/p' "the server does not listen" \
    "$E2E_DIR/serve.err" || { serve_kill; return 1; }
  SERVE_PORT=$E2E_SEEN
}

# Waits for a server that ends by itself (--once) or stops it with SIGTERM.
serve_wait() {
  wait "$SERVE_PID"
  SERVE_STATUS=$?
  SERVE_PID=
  SERVE_ERR=$(cat "$E2E_DIR/serve.err")
}
serve_stop() {
  [ -n "$SERVE_PID" ] && kill -TERM "$SERVE_PID"
  serve_wait
}
serve_kill() {
  if [ -n "$SERVE_PID" ]; then
    kill -KILL "$SERVE_PID" 2>/dev/null
    wait "$SERVE_PID" 2>/dev/null
    SERVE_PID=
  fi
}

# The server's lines of the last serve_wait/serve_stop, a client's address
# as PEER and a duration as T.
serve_lines() {
  sed -E 's/127\.0\.0\.1:[0-9]+ (done|refused)/PEER \1/; s/[0-9]+\.[0-9]{3} s$/T s/' <<<"$SERVE_ERR"
}

# "jtag newtap" commands for a chain as kelvorn-sim's --chain writes it
# (nearest TDO first, as OpenOCD declares them; a device's memory aside):
# c0.tap, c1.tap, ...
chain_taps() {
  tr , '\n' <<<"$1" |
    awk -F: '{ printf "%sjtag newtap c%d tap -irlen %s -expected-id %s", (NR > 1 ? ";" : ""), NR - 1, $2, $1 }'
}

# Runs openocd against the server with these commands after init; its
# output (all on stderr) in $OPENOCD_OUT, its status in $OPENOCD_STATUS.
openocd_run() {  # taps commands
  OPENOCD_OUT=$(timeout 120 openocd -c "adapter driver remote_bitbang; remote_bitbang host 127.0.0.1;
    remote_bitbang port $SERVE_PORT; $1; init; $2; shutdown" 2>&1)
  OPENOCD_STATUS=$?
}
