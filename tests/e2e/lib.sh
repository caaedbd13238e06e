# Shared set-up for end-to-end tests of the built binaries. Each run happens
# in a private mount namespace whose /proc/cmdline, /dev, /sys/bus/pci/devices,
# /var/lock and /tmp are this test's own files, so nothing reaches this
# machine's hardware, lock directory or kernel command line.
#
#   source "$(dirname "$0")/lib.sh" "$1"      # $1: the build directory; $d, $bsdl: files, BSDL files; $src
#   e2e_cmdline "console=ttyS0 platform=gozip"
#   e2e_pci 0000:00:14.0 resource5 0x1000   # a sparse resource file
#   e2e_run kelvorn fodak 0000:00:14.0 tdo  # status in $E2E_STATUS, output in $E2E_OUT/$E2E_ERR
#   e2e_run "$E2E_DIR/prog"                 # a program of the test's own, by its path
#   e2e_start kelvorn ...; ...; e2e_wait    # the same, in the background, SIGINT and SIGQUIT as a terminal's
#   e2e_hold kelvorn fodak 0000:00:14.0 tck 1; ...; e2e_wait   # during a set command's hold
#   expect_eq "$(rd8 "$(e2e_pci_file 0000:00:14.0 resource5)" 0x1bd)" 0x40 "TCK driven high"
#   expect_eq "$(regs rd8 "$file" 0x1bd 0x1ab)" "0x40 0x0" "TCK high, TDI low"
#   expect_run 1 "Kelvorn" "" "tck 1" kelvorn fodak 0000:00:14.0 tck 1   # status, stdout, stderr
#   expect_err 2 "kelvorn: ..." "bad pin" kelvorn fodak 0000:00:14.0 tck 2  # status and stderr (expect_out: stdout)
#   e2e_done
set -uo pipefail

if [ "$(id -u)" != 0 ] || ! unshare -m --propagation private true 2>/dev/null; then
  echo "skipped: needs root and mount namespaces"
  exit 77
fi

E2E_BUILD=$(cd "${1:?build directory}" && pwd)
# Outside /tmp, which the runs replace with a directory of their own.
E2E_DIR=$(mktemp -d /var/tmp/kelvorn-e2e.XXXXXX)
trap 'rm -rf "$E2E_DIR"' EXIT
mkdir -p "$E2E_DIR"/{pci,lock,dev,tmp,bin,files,bsdl}
# The test's own files ($d) and the BSDL files of tests/data ($bsdl) go where the
# runs see them: the source tree may be under /tmp, which each run replaces.
d=$E2E_DIR/files bsdl=$E2E_DIR/bsdl
src=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)  # the source tree
cp "$src"/tests/data/bsdl/*.[bB][sS][dD] "$bsdl/"
: >"$E2E_DIR/dev/null"
echo "console=ttyS0 quiet" >"$E2E_DIR/cmdline"
E2E_PASSED=0
E2E_FAILED=0

e2e_cmdline() { echo "$1" >"$E2E_DIR/cmdline"; }
e2e_pci_file() { echo "$E2E_DIR/pci/$1/$2"; }
e2e_pci() {  # address resource size
  mkdir -p "$E2E_DIR/pci/$1"
  truncate -s "$(($3))" "$E2E_DIR/pci/$1/$2"
}
# An entry of the build's CMake cache: cache CMAKE_C_COMPILER.
cache() { sed -n "s/^$1:[A-Z]*=//p" "$E2E_BUILD/CMakeCache.txt"; }
e2e_lock_dir() { echo "$E2E_DIR/lock"; }
e2e_tmp_dir() { echo "$E2E_DIR/tmp"; }

# The command line that runs a binary of the build (or, given a path, that
# program; it must not be under /tmp) inside the namespace.
_e2e_cmd() {
  local bin=$1 path; shift
  if [[ $bin == */* ]]; then
    path=$bin
  else
    path=$E2E_DIR/bin/$bin
    [ -x "$path" ] || cp "$E2E_BUILD/bin/$bin" "$path"
  fi
  E2E_ARGV=(unshare -m --propagation private sh -c '
    d=$1; shift
    mount --bind "$d/cmdline" /proc/cmdline &&
    mount --bind "$d/pci" /sys/bus/pci/devices &&
    mount --bind "$d/lock" /var/lock &&
    mount --bind "$d/dev" /dev &&
    mount --bind "$d/tmp" /tmp || exit 99
    exec "$@"' sh "$E2E_DIR" "$path" "$@")
}

e2e_run() {
  _e2e_cmd "$@"
  "${E2E_ARGV[@]}" >"$E2E_DIR/out" 2>"$E2E_DIR/err"
  E2E_STATUS=$?
  E2E_OUT=$(cat "$E2E_DIR/out")
  E2E_ERR=$(cat "$E2E_DIR/err")
}

# A background job starts with SIGINT and SIGQUIT ignored, and the tools leave
# ignored signals alone (as under nohup): it gets the defaults a terminal gives.
e2e_start() {
  _e2e_cmd "$@"
  env --default-signal=INT,QUIT "${E2E_ARGV[@]}" >"$E2E_DIR/bg.out" 2>"$E2E_DIR/bg.err" &
  E2E_BG=$!
}
# Starts a set command in the background and returns two seconds into its ten-second hold.
e2e_hold() { e2e_start "$@"; sleep 2; }
e2e_wait() {
  wait "$E2E_BG"
  E2E_STATUS=$?
  E2E_OUT=$(cat "$E2E_DIR/bg.out")
  E2E_ERR=$(cat "$E2E_DIR/bg.err")
}

# Register contents of a file standing for a window, as 0x-prefixed hex.
rd8() { printf '0x%x\n' "$(od -An -tu1 -j $(($2)) -N1 "$1" | tr -d ' ')"; }
rd32() { printf '0x%x\n' "$(od -An -tu4 --endian=little -j $(($2)) -N4 "$1" | tr -d ' ')"; }
wr8() { printf "$(printf '\\x%02x' $(($3)))" | dd of="$1" bs=1 seek=$(($2)) conv=notrunc status=none; }
wr32() {
  local v=$(($3))
  printf "$(printf '\\x%02x\\x%02x\\x%02x\\x%02x' $((v & 255)) $((v >> 8 & 255)) $((v >> 16 & 255)) $((v >> 24 & 255)))" |
    dd of="$1" bs=1 seek=$(($2)) conv=notrunc status=none
}

# The last value of each signal named in a VCD file (C TCK, M TMS, I TDI, S3..S0 the TAP state bits).
vcd_end() { local file=$1 v; shift; for v; do grep -E "^[01z]$v\$" "$file" | tail -n 1; done | paste -sd' '; }

# Waits (up to 30 s, while process PID runs) for the first FILE to hold a line
# that sed -n SCRIPT prints: that in $E2E_SEEN, status 0; or a failure counted,
# with every FILE shown, status 1.
e2e_await() {  # pid script what file...
  local i
  for ((i = 0; i < 300; i++)); do
    E2E_SEEN=$(sed -n "$2" "$4")
    [ -n "$E2E_SEEN" ] && return 0
    kill -0 "$1" 2>/dev/null || break
    sleep 0.1
  done
  printf 'FAIL: %s:\n%s\n' "$3" "$(cat "${@:4}")"
  E2E_FAILED=$((E2E_FAILED + 1))
  return 1
}

# Registers at the offsets, read with rd8/rd32, on one line: regs rd32 FILE OFFSET...
regs() { local rd=$1 file=$2 off; shift 2; for off; do "$rd" "$file" "$off"; done | paste -sd' '; }

# The build installed as its users get it: e2e_stage installs it under
# $stage ($libdir its library directory) and sets $cc, the build's C compiler,
# and $sanitize, the flags a program that links a sanitized library needs too.
e2e_stage() {
  stage=$E2E_DIR/stage libdir=$(cache CMAKE_INSTALL_LIBDIR) cc=$(cache CMAKE_C_COMPILER) sanitize=()
  [ "$(cache KELVORN_SANITIZE)" = ON ] && sanitize=(-fsanitize=address,undefined)
  cmake --install "$E2E_BUILD" --prefix "$stage" >"$E2E_DIR/install.log" 2>&1
  expect_eq "$?" 0 "cmake --install: status"
}
# A C program of the test's own built with that compiler: e2e_cc OUT SOURCE ARGS...
e2e_cc() {
  "$cc" "${sanitize[@]}" -std=c99 -pedantic -Wall -Wextra -Werror -o "$@" >"$E2E_DIR/cc.log" 2>&1 || cat "$E2E_DIR/cc.log"
}
# A CMake project of the test's own configured on the staged prefix alone, and built.
e2e_cmake() {  # source build
  cmake -S "$1" -B "$2" -G Ninja -DCMAKE_PREFIX_PATH="$stage" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$(cache CMAKE_CXX_COMPILER)" -DCMAKE_C_FLAGS="${sanitize[*]}" \
    -DCMAKE_EXE_LINKER_FLAGS="${sanitize[*]}" >"$E2E_DIR/cmake.log" 2>&1 &&
    cmake --build "$2" >>"$E2E_DIR/cmake.log" 2>&1 || cat "$E2E_DIR/cmake.log"
}
# A shared library exports exactly FUNCTIONS (sorted) under its SONAME.
e2e_exports() {  # library functions soname
  expect_eq "$(nm -D --defined-only "$1" | awk '{print $3}' | sort)" "$2" "${1##*/}: exports exactly the header's functions"
  expect_eq "$(readelf -d "$1" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')" "$3" "${1##*/}: SONAME"
}
# The project's libraries a program needs, by SONAME.
needed() { readelf -d "$1" 2>/dev/null | sed -n 's/.*(NEEDED).*\[\(lib\(xilinx\|kelvorn\).*\)\]/\1/p'; }
# In test mode a backend maps $regfile: rotanMotub's, a PEX 8600 whose
# second GPIO group has TCK 21 (bit 5), TDO 19 (bit 3), TMS 20 (bit 4) and
# TDI 18 (bit 2); direction 0x630 (two bits a GPIO), input data 0x640, output
# data 0x648. It starts with GPIO 31 an output (not the device's) and high,
# TDO high, and the output data given.
e2e_rotan_regfile() {  # output-data
  regfile=$(e2e_tmp_dir)/xilinxTestMemMapFile
  rm -f "$regfile" "$(e2e_tmp_dir)/xilinxTestLockFile"
  truncate -s 4096 "$regfile"
  wr32 "$regfile" 0x630 0x80000000
  wr32 "$regfile" 0x640 0x8
  wr32 "$regfile" 0x648 "$1"
}
# After a run in test mode: the registers left, and the lock taken in the test lock file, never under /var/lock.
e2e_rotan_after() {  # output-data what
  expect_eq "$(regs rd32 "$regfile" 0x630 0x648)" "0x80000000 $1" "$2: the pins inputs again after the clean-up"
  expect_eq "$(ls "$(e2e_tmp_dir)" "$(e2e_lock_dir)" | grep -c xilinxTestLockFile)" 1 "$2: the test lock file, nothing in /var/lock"
}

# A shell example of a document, run command by command as printed.
# e2e_split DIR <EXAMPLE: its commands, DIR/cmd.N (a command goes on over lines
# until bash parses it whole), and what the document shows each one print,
# DIR/want.N (the comment lines right after it, "# " taken off); prints the count.
e2e_split() {
  local line cmd="" n=0 output=0
  while IFS= read -r line || [ -n "$line" ]; do
    if [ -z "$cmd" ] && [[ $line =~ ^[[:space:]]*(#|$) ]]; then
      [[ $line == '#'* ]] || output=0
      ((output)) && { line=${line#'#'}; printf '%s\n' "${line# }" >>"$1/want.$n"; }
      continue
    fi
    cmd+=${cmd:+$'\n'}$line
    [[ $cmd == *\\ ]] && continue
    [ -z "$(bash -n <<<"$cmd" 2>&1)" ] || continue
    n=$((n + 1))
    printf '%s\n' "$cmd" >"$1/cmd.$n"
    cmd="" output=1
  done
  [ -z "$cmd" ] || printf 'the example ends inside a command: %s\n' "$cmd" >&2
  echo "$n"
}
# e2e_script DIR [2>&1]: the commands one after the other, until one fails;
# each one's stdout (with 2>&1 its stderr too, as a terminal shows them) in
# DIR/out.N, its stderr otherwise in DIR/err.N, its status in DIR/status.N.
e2e_script() {
  local i err
  for ((i = 1; i <= $(ls "$1" | grep -c '^cmd\.'); i++)); do
    err=${2:-2>$(printf %q "$1/err.$i")}
    printf '{\n%s\n} >%q %s </dev/null; s=$?; echo $s >%q; [ $s = 0 ] || exit 0\n' \
      "$(cat "$1/cmd.$i")" "$1/out.$i" "$err" "$1/status.$i"
  done
}
# e2e_commands WHAT DIR: every command ran, with status 0 and the output shown.
e2e_commands() {
  local i
  for ((i = 1; i <= $(ls "$2" | grep -c '^cmd\.'); i++)); do
    local what="$1, command $i: $(head -n1 "$2/cmd.$i")"
    expect_eq "$(cat "$2/status.$i" 2>/dev/null || echo 'not run')" 0 "$what: status"
    [ "$(cat "$2/status.$i" 2>/dev/null)" = 0 ] || sed 's/^/  | /' "$2/out.$i" "$2/err.$i" 2>/dev/null
    [ ! -f "$2/want.$i" ] || expect_eq "$(cat "$2/out.$i")" "$(cat "$2/want.$i")" "$what: output"
  done
}

expect_eq() {  # actual expected what
  if [ "$1" == "$2" ]; then
    E2E_PASSED=$((E2E_PASSED + 1))
  else
    E2E_FAILED=$((E2E_FAILED + 1))
    printf 'FAIL: %s\n  expected: %q\n  actual:   %q\n' "$3" "$2" "$1"
  fi
}

# Runs a binary as e2e_run does and checks its status, stdout and stderr.
expect_run() {  # status stdout stderr what binary args...
  local status=$1 out=$2 err=$3 what=$4
  shift 4
  e2e_run "$@"
  expect_eq "$E2E_STATUS" "$status" "$what: status"
  expect_eq "$E2E_OUT" "$out" "$what: stdout"
  expect_eq "$E2E_ERR" "$err" "$what: stderr"
}

# The same, comparing "status|stdout" or "status|stderr" only; the command
# may also be a function of the test's own that ends in e2e_run.
e2e_call() { if declare -F "$1" >/dev/null; then "$@"; else e2e_run "$@"; fi; }
expect_out() { local want="$1|$2" what=$3; shift 3; e2e_call "$@"; expect_eq "$E2E_STATUS|$E2E_OUT" "$want" "$what"; }
expect_err() { local want="$1|$2" what=$3; shift 3; e2e_call "$@"; expect_eq "$E2E_STATUS|$E2E_ERR" "$want" "$what"; }

e2e_done() {
  echo "$E2E_PASSED passed, $E2E_FAILED failed"
  [ "$E2E_FAILED" = 0 ]
}
