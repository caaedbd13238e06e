#!/usr/bin/env bash
# scripts/screenshot-view.sh [BUILD [PNG]]: docs/view.png, the page of
# kelvorn-chain view on the simulated two-device board (as in
# tests/e2e/view_test.sh), taken by headless chromium at 1280x800. Needs root
# (the simulator runs in a private mount namespace), chromium, chromedriver
# and Debian's python3-selenium.
set -uo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
png=$(realpath -m "${2:-$here/docs/view.png}")
source "$here/tests/e2e/lib.sh" "${1:-$here/build}"
bsdl=$E2E_DIR/bsdl
mkdir -p "$bsdl"
cp "$here"/tests/data/bsdl/kv_io48.bsd "$here"/tests/data/bsdl/KV_BGA36.BSD "$bsdl/"
_e2e_cmd kelvorn-sim --chain "bsdl=$bsdl/kv_io48.bsd,bsdl=$bsdl/KV_BGA36.BSD" \
  --pin '0.in(1)=0' --pin '0.io(3)=0' --pin '1.IN(2)=wave:400' --pin '0.io(6)=wave:1000' \
  chain --bsdl "0=$bsdl/kv_io48.bsd" --bsdl "1=$bsdl/KV_BGA36.BSD" rotanMotub 0000:03:00.0 view --listen 127.0.0.1:0 --drive
env --default-signal=INT,QUIT "${E2E_ARGV[@]}" >"$E2E_DIR/view.out" 2>"$E2E_DIR/view.err" &
pid=$!
url=
for ((i = 0; i < 300; i++)); do
  url=$(sed -n 's|^view: \(http://.*/\)$|\1|p' "$E2E_DIR/view.out")
  [ -n "$url" ] && break
  sleep 0.1
done
[ -n "$url" ] || { cat "$E2E_DIR/view.err" >&2; kill -INT "$pid"; exit 1; }
curl -s -d '{"position":0,"port":"io(9)","level":"0"}' "${url}api/drive" >/dev/null
/usr/bin/python3 "$here/tests/e2e/view_browser.py" screenshot "$url" "$E2E_DIR/chromium" "$png"
status=$?
kill -INT "$pid"
wait "$pid"
[ "$status" = 0 ] && echo "$png"
