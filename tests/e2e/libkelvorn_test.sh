# libkelvorn and libkelvorn-sim as a user's program and script see them,
# installed to a staging prefix: only kv_ functions exported, SONAMEs,
# pkg-config and find_package; a C program built against the prefix alone
# programs an image on the simulated board (the memory equals the image),
# is cancelled from its progress callback (the pins given back), and is
# refused a second open of the device; the same binary runs with the two
# libraries swapped under it (the hardware one in test mode on a PEX 8600
# register file); the C and Python examples of docs/library.md run as printed; the
# pytest suite runs against the staged Python package.
source "$(dirname "$0")/lib.sh" "$1"

e2e_stage
lib=$stage/$libdir
header=$stage/include/kelvorn/kelvorn.h
# Programs that load a sanitized library need its runtime first.
run_env=()
c_env=()
if [ "$(cache KELVORN_SANITIZE)" = ON ]; then
  # libstdc++ with it: the runtime finds the C++ throw it intercepts only
  # in what is loaded with it, and the Python interpreter does not link it.
  # No leak check there: the interpreter leaves much of its own behind at exit.
  cxx=$(cache CMAKE_CXX_COMPILER)
  run_env=(LD_PRELOAD="$("$cxx" -print-file-name=libasan.so) $("$cxx" -print-file-name=libstdc++.so.6)" ASAN_OPTIONS=detect_leaks=0)
  # The C programs, built with the runtime, are checked for leaks (the library's too).
  # The suppressions where the namespaced runs see them too (the source tree may be under /tmp).
  cp "$src/tests/lsan.supp" "$E2E_DIR/lsan.supp"
  c_env=(ASAN_OPTIONS=detect_leaks=1 LSAN_OPTIONS=suppressions=$E2E_DIR/lsan.supp:print_suppressions=0)
fi

# ---- what the libraries export ----

functions=$(sed -nE 's/^(int|const char\*) (kv_[a-z_]+)\(.*/\2/p' "$header" | sort)
expect_eq "$(wc -l <<<"$functions")" 22 "the header's functions found"
for so in libkelvorn libkelvorn-sim; do e2e_exports "$lib/$so.so.1" "$functions" "$so.so.1"; done

export PKG_CONFIG_PATH=$lib/pkgconfig
expect_eq "$(echo $(pkg-config --cflags --libs kelvorn))" "-I$stage/include -L$lib -lkelvorn" "pkg-config kelvorn"
expect_eq "$(echo $(pkg-config --cflags --libs kelvorn-sim))" "-I$stage/include -L$lib -lkelvorn-sim" "pkg-config kelvorn-sim"

# tests/c/kelvorn_test.c against the prefix alone, once for each library.
for p in kelvorn:on_hw kelvorn-sim:on_sim; do
  e2e_cc "$E2E_DIR/${p#*:}" "$src/tests/c/kelvorn_test.c" $(pkg-config --cflags --libs "${p%:*}") -Wl,-rpath,"$lib"
done
expect_eq "$(needed "$E2E_DIR/on_hw") $(needed "$E2E_DIR/on_sim")" "libkelvorn.so.1 libkelvorn-sim.so.1" "the programs' libraries"

# ---- on the simulated board ----

# 1024 rows of 64 bits between two devices in BYPASS: an 8 KiB image fills them.
chain=0x0a5c7035:8,0x1b4d2093:6:mem=1024x64,0x2468ace1:10
rows=1024
head -c $((rows * 8)) /dev/urandom >"$d/image.bin"
"$E2E_BUILD/bin/kelvorn-vectors" --chain "$chain" --svf "$d/image.svf" "$d/image.bin"
board="--cpu 0x16:0x30 --chain $chain --dump-memory $d/memory.bin"
discovery='{"devices":[{"position":0,"idcode":"0x0a5c7035","ir_length":8,"ir_length_from":"detected","manufacturer":"Zilog","part":null,"version":0,"bsdl":null,"jep106":{"bank":1,"code":26}},{"position":1,"idcode":"0x1b4d2093","ir_length":6,"ir_length_from":"detected","manufacturer":"Xilinx","part":null,"version":1,"bsdl":null,"jep106":{"bank":1,"code":73}},{"position":2,"idcode":"0x2468ace1","ir_length":10,"ir_length_from":"detected","manufacturer":null,"part":null,"version":2,"bsdl":null,"jep106":{"bank":13,"code":112}}],"ir_total":24}'
# The bits of the cancelled play and the TCK cycles of the whole one, as N.
numbers() { sed -E -e 's/after [0-9]+ bits/after N bits/' -e 's/[0-9]+ bits, [0-9]+ TCK/B bits, C TCK/'; }
out=$(env "${c_env[@]}" "$E2E_DIR/on_sim" "$board" rotanMotub 0000:03:00.0 "$d/image.svf" 2>"$E2E_DIR/err")
expect_eq "$?|$(numbers <<<"$out")|$(cat "$E2E_DIR/err")" "0|configure: ok
open: ok
second open: locked: Lock file is locked by another process.
discover: ok: $discovery
cancelled: cancelled after 1 call(s), $d/image.svf: cancelled by the progress callback after N bits; pins given back
pins: TCK=z TDI=z TMS=z TDO=1
play: ok: $((17 + 3 * rows)) statements, $((8 + 2 * rows)) scans, B bits, C TCK cycles, progress called|" \
  "simulated board: program, second open, cancel, play"
# The facts are kelvorn-chain's, on the same board.
expect_out 0 "$discovery" "kelvorn-chain --json: the same facts" kelvorn-sim --cpu 0x16:0x30 --chain "$chain" chain --json rotanMotub 0000:03:00.0
cmp "$d/image.bin" "$d/memory.bin" >/dev/null
expect_eq "$?" 0 "the programmed memory is the image (written when the last device closed)"

# A program that ends without closing the device: the library closes it at
# exit(), and the simulated chip's last writes make the pins inputs again.
out=$(env "${c_env[@]}" "$E2E_DIR/on_sim" "--cpu 0x16:0x30 --chain $chain --show-writes" rotanMotub 0000:03:00.0 exit \
  2>"$E2E_DIR/err" | tail -n1)
expect_eq "$?|$out" "0|discover: ok: $discovery" "exit without kv_close: status"
expect_eq "$(grep -oE '(TCK|TMS|TDI) [01z]->[01z]' "$E2E_DIR/err" | tail -n3 | sort | paste -sd' ')" \
  "TCK 0->z TDI 1->z TMS 1->z" "exit without kv_close: the pins given back"

# ---- ABI: each program with the other library under it ----

# libkelvorn.so.1 that is the simulator: the hardware program runs on the simulated board.
mkdir -p "$E2E_DIR/swap-sim" "$E2E_DIR/swap-hw"
ln -s "$lib/libkelvorn-sim.so.1" "$E2E_DIR/swap-sim/libkelvorn.so.1"
ln -s "$lib/libkelvorn.so.1" "$E2E_DIR/swap-hw/libkelvorn-sim.so.1"
out=$(env "${c_env[@]}" LD_LIBRARY_PATH="$E2E_DIR/swap-sim" "$E2E_DIR/on_hw" "--cpu 0x16:0x30 --chain $chain" \
  rotanMotub 0000:03:00.0 2>&1)
expect_eq "$?|$out" "0|configure: ok
open: ok
second open: locked: Lock file is locked by another process.
discover: ok: $discovery" "libkelvorn-sim under the program built for libkelvorn"

# libkelvorn-sim.so.1 that is the hardware library: the simulator's program
# opens the device in test mode, on rotanMotub's register file (TCK, TMS and
# TDI low). No device drives TDO (high); the discovery finds the chain dead
# and leaves TMS and TDI high, TCK low (so the pins were driven); the close
# makes them inputs again.
e2e_rotan_regfile 0x8000
expect_out 0 "configure: sim: this is libkelvorn, which drives real boards: load libkelvorn-sim.so.1 to simulate one
open: ok
second open: locked: Lock file is locked by another process.
discover: dead chain: TDO stuck at 1: no device drives it (a pull-up only); check the devices' power, that TCK and TMS reach them, and the TDO wiring" \
  "libkelvorn under the program built for libkelvorn-sim, in test mode" /usr/bin/env "${c_env[@]}" LD_LIBRARY_PATH="$E2E_DIR/swap-hw" "$E2E_DIR/on_sim" "--chain 0x1:8" rotanMotub 0000:03:00.0
e2e_rotan_after 0x8014 "test mode"

# ---- find_package(kelvorn): kelvorn::kelvorn and kelvorn::kelvorn_sim ----

mkdir -p "$E2E_DIR/cmake-src"
cat >"$E2E_DIR/cmake-src/CMakeLists.txt" <<EOF
cmake_minimum_required(VERSION 3.20)
project(kvconsumer LANGUAGES C)
find_package(kelvorn REQUIRED)
add_executable(on_hw "$src/tests/c/kelvorn_test.c")
target_link_libraries(on_hw PRIVATE kelvorn::kelvorn)
add_executable(on_sim "$src/tests/c/kelvorn_test.c")
target_link_libraries(on_sim PRIVATE kelvorn::kelvorn_sim)
EOF
e2e_cmake "$E2E_DIR/cmake-src" "$E2E_DIR/cmake"
expect_eq "$(needed "$E2E_DIR/cmake/on_hw") $(needed "$E2E_DIR/cmake/on_sim")" "libkelvorn.so.1 libkelvorn-sim.so.1" \
  "find_package: the two targets"
out=$(env "${c_env[@]}" "$E2E_DIR/cmake/on_sim" "--cpu 0x16:0x30 --chain $chain" rotanMotub 0000:03:00.0 2>&1 | tail -n1)
expect_eq "$out" "discover: ok: $discovery" "find_package: the program runs on the simulated board"

# ---- the examples of docs/library.md, as printed ----

readme=$E2E_DIR/readme
mkdir -p "$readme/bin"
# The Nth fenced block of a language in the libkelvorn section of docs/library.md.
block() {  # language n
  awk -v lang="$1" -v n="$2" '
    /^## / { in_section = ($0 ~ /^## The whole chain from C and Python/) }
    !in_section { next }
    inside && /^```$/ { inside = 0; next }
    inside { if (count == n) print; next }
    $0 == "```" lang { inside = 1; count++ }' "$src/docs/library.md"
}
block c 1 >"$readme/chain.c"
block python 1 >"$readme/chain.py"
expect_eq "$(head -n1 "$readme/chain.c") / $(head -n1 "$readme/chain.py")" \
  "/* chain.c: the devices on the chain behind \"rotanMotub\" at 0000:03:00.0, then a file played on it. */ / # chain.py: the same from Python, on the simulated board, and an IDCODE read by hand." \
  "docs/library.md: the examples found"
# cc: this build's compiler, warnings as errors, linked to find the staged library at run time.
cat >"$readme/bin/cc" <<EOF
#!/bin/sh
exec "$cc" ${sanitize[*]} -std=c99 -pedantic -Wall -Wextra -Werror "\$@" -Wl,-rpath,"$lib"
EOF
chmod +x "$readme/bin/cc"
cp "$E2E_BUILD/bin/kelvorn-vectors" "$readme/bin/"
readme_run() {  # the block's commands, in the examples' directory
  (cd "$readme" && env "${run_env[@]}" PATH="$readme/bin:$PATH" PYTHONPATH="$stage/lib/python3/dist-packages" \
    KELVORN_LIBRARY_PATH="$lib" bash -e -c "$1" 2>"$E2E_DIR/readme.err")
}
out=$(readme_run "$(block sh 1)")
expect_eq "$?|$out" "0|$(block text 1)" "docs/library.md: the C example, built and run as printed"
expect_eq "$(tr '\r' '\n' <"$E2E_DIR/readme.err" | tail -n1)" "100%" "docs/library.md: the C example's progress bar"
out=$(readme_run "$(block sh 2)")
expect_eq "$?|$out" "0|$(block text 2)" "docs/library.md: the Python example, run as printed"

# ---- the Python package, installed ----

py=/usr/bin/python3
pyenv=(PYTHONPATH="$stage/lib/python3/dist-packages" KELVORN_LIBRARY_PATH="$lib" PYTHONDONTWRITEBYTECODE=1)
expect_eq "$(env "${pyenv[@]}" "$py" -c 'import kelvorn; print(kelvorn.__file__)')" \
  "$stage/lib/python3/dist-packages/kelvorn/__init__.py" "the staged package is the one imported"
env "${run_env[@]}" "${pyenv[@]}" KELVORN_TEST_BUILD="$E2E_BUILD" KELVORN_TEST_DATA="$src/tests/data" \
  "$py" -m pytest -q -p no:cacheprovider "$src/tests/python" >"$E2E_DIR/pytest.log" 2>&1
status=$?
[ $status = 0 ] || cat "$E2E_DIR/pytest.log"
expect_eq "$status|$(tail -n1 "$E2E_DIR/pytest.log" | sed -E 's/ in [0-9.]+s//')" "0|12 passed" "pytest against the staged install"

# SIGQUIT and SIGTERM during a play from the library (Python, the staged
# package): the pins are given back before the process ends by the signal,
# so the waveform ends with TCK, TMS and TDI undriven.
for sig in QUIT TERM; do
  rm -f "$E2E_DIR/playing" "$E2E_DIR/lib.vcd"
  env --default-signal=INT,QUIT "${run_env[@]}" "${pyenv[@]}" "$py" -c '
import sys, kelvorn
with kelvorn.open("rotanMotub", "0000:03:00.0", sim="--vcd " + sys.argv[1]) as dev:
    def progress(done, total, bits):
        open(sys.argv[2], "w").close()
        return False
    dev.play_bytes(b"RUNTEST 4000000000 TCK;", progress=progress)
' "$E2E_DIR/lib.vcd" "$E2E_DIR/playing" >"$E2E_DIR/libplay.out" 2>&1 &
  pid=$!
  for ((i = 0; i < 100; i++)); do [ -e "$E2E_DIR/playing" ] && break; sleep 0.1; done
  kill -$sig $pid
  wait $pid
  status=$?
  expect_eq "$status|$([ -e "$E2E_DIR/playing" ] && echo playing)" "$((128 + $(kill -l $sig)))|playing" "SIG$sig during a library play: ended by it"
  expect_eq "$(vcd_end "$E2E_DIR/lib.vcd" C M I)" "zC zM zI" "SIG$sig during a library play: TCK, TMS and TDI released last"
done

e2e_done
