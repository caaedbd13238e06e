# kelvorn-chain view on a simulated board (kv_io48 in a 48-pin quad package,
# KV_BGA36 in a 6x6 ball grid) seen through a real browser, Debian's headless
# chromium driven by selenium (tests/e2e/view_browser.py): the chain table,
# the packages drawn pin for pin, a pin held low and a pin on a square wave,
# the token, 100 event streams and 1000 malformed requests at once, pins
# driven from the page in two tabs and what the boundary register really
# drove, Ctrl-C. The simulator runs in the test's mount namespace; the
# browser outside it, on 127.0.0.1.
source "$(dirname "$0")/lib.sh" "$1"

py=/usr/bin/python3  # Debian's, with selenium (the first python3 on PATH may be another)
for tool in chromium chromedriver; do
  command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done
"$py" -c 'import selenium' 2>/dev/null || { echo "skipped: $py has no selenium"; exit 77; }
browser() { "$py" "$(dirname "$0")/view_browser.py" "$@"; }


VIEW_PID=
trap 'view_kill; rm -rf "$E2E_DIR"' EXIT
view_kill() { [ -n "$VIEW_PID" ] && kill -KILL "$VIEW_PID" 2>/dev/null && wait "$VIEW_PID" 2>/dev/null; VIEW_PID=; }

# Starts the view on the two-device board: sim options, then view options.
# A background job starts with SIGINT ignored, and the tool leaves ignored
# signals alone: it gets a terminal's defaults. The page's URL in $VIEW_URL.
view_start() {
  local sim=()
  while (($#)) && [ "$1" != -- ]; do sim+=("$1"); shift; done
  shift
  _e2e_cmd kelvorn-sim --chain "bsdl=$bsdl/kv_io48.bsd,bsdl=$bsdl/KV_BGA36.BSD" "${sim[@]}" \
    chain --bsdl "0=$bsdl/kv_io48.bsd" --bsdl "1=$bsdl/KV_BGA36.BSD" rotanMotub 0000:03:00.0 view --listen 127.0.0.1:0 "$@"
  env --default-signal=INT,QUIT "${E2E_ARGV[@]}" >"$E2E_DIR/view.out" 2>"$E2E_DIR/view.err" &
  VIEW_PID=$!
  VIEW_URL=
  e2e_await "$VIEW_PID" 's|^view: \(http://127\.0\.0\.1:[0-9]*/[0-9a-f]\{32\}/\)$|\1|p' "the view does not start" \
    "$E2E_DIR/view.out" "$E2E_DIR/view.err" || { view_kill; return 1; }
  VIEW_URL=$E2E_SEEN
}
# Ctrl-C: the view stops, releases the chain and the pins; status in $VIEW_STATUS.
view_interrupt() {
  kill -INT "$VIEW_PID"
  wait "$VIEW_PID"
  VIEW_STATUS=$?
  VIEW_PID=
}

# ---- read only: what the page shows, and what it is ----

# A board test's report with a failing net between U1 pin 2 and U2 ball A3: both outlined.
cat >"$d/result.json" <<'EOF'
{"nets":[{"name":"N1","result":"fail","pins":["U1.2","U2.A3"]},{"name":"N2","result":"pass","pins":["U1.3","U2.A2"]}],"faults":[{"kind":"open"}]}
EOF
if view_start --pin '0.in(1)=0' --pin '1.IN(2)=wave:200' --vcd "$d/view.vcd" --dump-pins "$d/pins" -- \
  --result "$d/result.json" --part U1=0 --part U2=1; then
  expect_eq "$(browser page "$VIEW_URL" "$E2E_DIR/chromium" '0.in(1)' '1.IN(2)')" \
"chain: 0 | 0x148300dd | Altera | kv_io48 | 5 | yes
chain: 1 | 0x2b63603f | Atmel | KV_BGA36 | 6 | yes
device 0: 48 pins, 48 distinct, grey 20
device 1: 36 pins, 36 distinct, grey 12
quad 0: left 1,2,3,4,5,6,7,8,9,10,11,12; bottom 13,14,15,16,17,18,19,20,21,22,23,24; right 25,26,27,28,29,30,31,32,33,34,35,36; top 37,38,39,40,41,42,43,44,45,46,47,48
grid 1 misplaced: none
level 0.in(1): page 0, api/levels 0
title 0.in(1): in(1), pin 35 / cell 1, input / level 0
changed 0.in(1): False
fault marks: 0.2 1.A3
wave 1.IN(2): 2 changes through 0 and 1 (ringed)
panel: IN(2) (pin E5, device 1) | drive buttons shown: False | release all shown: False
search IO(1: 22 pins | 0.io(1) 0.io(10) 0.io(11) 0.io(12) 0.io(13) 0.io(14) 0.io(15) 0.io(16) 0.io(17) 0.io(18) 0.io(19) 1.IO(1) 1.IO(10) 1.IO(11) 1.IO(12) 1.IO(13) 1.IO(14) 1.IO(15) 1.IO(16) 1.IO(17) 1.IO(18) 1.IO(19)
console errors: []" "the page: chain, drawings, levels, the wave, search"
  expect_eq "$(browser forbidden "$VIEW_URL")" "GET /: 403
GET /api/chain: 403
GET /api/events: 403
GET /WRONG/api/chain: 403
GET /TOKEN-IN-CAPITALS/api/chain: 403
GET /TOKEN: 200
GET /x/TOKEN/api/chain: 403
POST /api/release: 403" "without the token: forbidden"
  # Without --drive a drive is refused, status 6, and nothing moves.
  expect_eq "$(curl -s -w ' %{http_code}' -d '{"position":0,"port":"io(5)","level":"1"}' "${VIEW_URL}api/drive")" \
    '{"status":6,"error":"drive refused: the view was started without --drive"}
 403' "drive without --drive: refused"
  view_interrupt
  expect_eq "$VIEW_STATUS|$(cat "$E2E_DIR/view.err")|$(cat "$d/pins")" "0||" "Ctrl-C: status 0, no pin driven"
  expect_eq "$(vcd_end "$d/view.vcd" C M I S3 S2 S1 S0)" "zC zM zI 0S3 0S2 0S1 0S0" "Ctrl-C: TCK, TMS and TDI released, the TAP in Test-Logic-Reset"
fi

# ---- a still board: one snapshot, then keep-alive comments only ----

# Nothing changes, nothing is driven: the stream is its first levels event
# and a ping a second, however long it is read (it once sent snapshots in a
# busy loop until the first event, and the browser spent itself parsing them).
if view_start --; then
  timeout 2.5 curl -sN "${VIEW_URL}api/events" >"$d/still.events"
  expect_eq "$(grep -c '^event: ' "$d/still.events")|$(head -n1 "$d/still.events")|$(grep -q '^: ping$' "$d/still.events" && echo pings)" \
    "1|event: levels|pings" "a still board: one levels event, then pings"
  view_interrupt
  expect_eq "$VIEW_STATUS" 0 "a still board: Ctrl-C, status 0"
fi

# ---- drive from the page ----

if view_start --dump-pins "$d/pins" --vcd "$d/drive.vcd" -- --drive; then
  expect_eq "$(browser drive "$VIEW_URL" "$E2E_DIR/chromium" 'io(5)' 'oe_out(0)')" \
"drive 0 io(5): level 0, driven True, ringed True
io(5) a while later: ringed False, level 0
other tab: level 0, driven True
drive 1 oe_out(0): api/drive: 403 drive: oe_out(0) shares control cell 4 with oe_out(1), not named: it would drive that port too | error: True
driven pins: 0.io(5) 0.led
released, this tab: driven 0, io(5) level 1
released, other tab: driven 0, io(5) level 1
drive 1 io(5): 0.io(5) driven 1 | io(5), pin 7 / cell 19, bidir / level 1 / driven 1
console errors: []" "drive from the page, two tabs"
  expect_eq "$(curl -s "${VIEW_URL}api/levels" | jq -c '[.driving, .levels["0"]["io(5)"]]')" '[{"0":{"led":"0","io(5)":"1"}},1]' \
    "api/levels: what the page shows"
  expect_eq "$(browser stress "$VIEW_URL")" "100 event streams, first lines: ['event: levels'] 100
1000 malformed requests: 1000 sent; none accepted | no 5xx
api/chain after: the same
driving after: {\"0\": {\"io(5)\": \"1\", \"led\": \"0\"}}" "100 streams and 1000 malformed requests"
  view_interrupt
  # io(5) as the page drove it; led, a two-state output, at its safe 0; every
  # other pin released by its control cell.
  expect_eq "$VIEW_STATUS|$(cat "$d/pins")" "0|0.led 0
0.io(5) 1" "Ctrl-C while driving: status 0, the pins the boundary register drove"
  expect_eq "$(vcd_end "$d/drive.vcd" C M I S3 S2 S1 S0)" "zC zM zI 0S3 0S2 0S1 0S0" "Ctrl-C while driving: released, Test-Logic-Reset"
fi
# An address that is not this machine's: status 10, the reason, JSON on stdout.
expect_out 10 '{"status":10,"error":"view: cannot listen on 192.0.2.1:9: Cannot assign requested address"}' \
  "an address that cannot be listened on" kelvorn-sim --chain "bsdl=$bsdl/kv_io48.bsd" chain --json rotanMotub 0000:03:00.0 view --listen 192.0.2.1:9
expect_eq "$(ls "$(e2e_lock_dir)")" "" "no lock under /var/lock"

e2e_done
