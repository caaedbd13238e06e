# The Debian packages as a user meets them: the .debs built with cpack,
# unpacked into a staged root (dpkg -x: nothing under the real / changes),
# its usr/bin first on PATH and its libraries on LD_LIBRARY_PATH; there the
# installed kelvorn-chain finds the installed BSDL files, and the README's
# first session (the ```sh block after the line <!-- first-session -->)
# runs command by command (e2e_split, e2e_script and e2e_commands in lib.sh),
# in the namespace of the other end-to-end runs.
source "$(dirname "$0")/lib.sh" "$1"

libdir=$(cache CMAKE_INSTALL_LIBDIR)
version=$(cache CMAKE_PROJECT_VERSION)

# ---- the staged root ----

cpack -G DEB --config "$E2E_BUILD/CPackConfig.cmake" -B "$E2E_DIR/deb" >"$E2E_DIR/cpack.log" 2>&1 || cat "$E2E_DIR/cpack.log"
root=$E2E_DIR/root
for deb in "$E2E_DIR"/deb/*.deb; do dpkg -x "$deb" "$root"; done
expect_eq "$(ls "$root/usr/bin" | paste -sd' ')" "kelvorn kelvorn-chain kelvorn-play kelvorn-serve kelvorn-sim kelvorn-vectors" \
  "staged root: the programs"

work=$E2E_DIR/work  # the session's directory and HOME
mkdir -p "$work"
# The machine's /dev/null, /dev/zero, /dev/urandom and /dev/full, and /dev/fd,
# in the namespace's /dev, which otherwise holds nothing of the machine's (no
# /dev/mem): commands a user types (head -c N /dev/urandom, <(...)) need them.
for n in zero urandom full; do : >"$E2E_DIR/dev/$n"; done
ln -s /proc/self/fd "$E2E_DIR/dev/fd"
# Runs a command in the namespace, as a user of the staged root: a clean
# environment (but the sanitizers' options of a sanitized build), the root's
# programs, libraries, Python package and pages.
sanitizer_env=()
for v in ASAN_OPTIONS LSAN_OPTIONS UBSAN_OPTIONS; do [ -n "${!v:-}" ] && sanitizer_env+=("$v=${!v}"); done
# The installed programs are stripped: the leak suppressions, which name
# functions, cannot match there. Leaks are checked on the build's programs.
[ -n "${ASAN_OPTIONS:-}" ] && sanitizer_env+=("ASAN_OPTIONS=$ASAN_OPTIONS:detect_leaks=0")
as_user() {
  unshare -m --propagation private sh -c '
    d=$1; shift
    for n in null zero urandom full; do mount --bind "/dev/$n" "$d/dev/$n" || exit 99; done
    mount --bind "$d/cmdline" /proc/cmdline &&
    mount --bind "$d/pci" /sys/bus/pci/devices &&
    mount --bind "$d/lock" /var/lock &&
    mount --rbind "$d/dev" /dev &&
    mount --bind "$d/tmp" /tmp || exit 99
    cd "$d/work" && exec "$@"' sh "$E2E_DIR" \
    env -i "${sanitizer_env[@]}" HOME="$work" LANG=C.UTF-8 TERM=dumb PATH="$root/usr/bin:/usr/local/bin:/usr/bin:/bin" \
    LD_LIBRARY_PATH="$root/usr/$libdir" PYTHONPATH="$root/usr/lib/python3/dist-packages" \
    MANPATH="$root/usr/share/man" KELVORN_SHARE="$root/usr/share/kelvorn" "$@"
}

expect_eq "$(as_user sh -c 'for p in kelvorn-chain kelvorn-sim kelvorn-vectors; do command -v $p; $p --version; done')" \
  "$root/usr/bin/kelvorn-chain
kelvorn-chain $version
$root/usr/bin/kelvorn-sim
kelvorn-sim $version
$root/usr/bin/kelvorn-vectors
kelvorn-vectors $version" "the staged programs are the ones on PATH, and run"
expect_eq "$(as_user man -w kelvorn-sim kelvorn-vectors kelvorn-chain)" "$root/usr/share/man/man1/kelvorn-sim.1.gz
$root/usr/share/man/man1/kelvorn-vectors.1.gz
$root/usr/share/man/man1/kelvorn-chain.1.gz" "man finds the staged pages"
expect_eq "$(as_user python3 -c 'import kelvorn; print(kelvorn.__file__)')" \
  "$root/usr/lib/python3/dist-packages/kelvorn/__init__.py" "python3 imports the staged package"

# kelvorn-chain's default BSDL directory is share/kelvorn/bsdl beside its
# bin/: the one the package made, holding the simulated parts.
expect_eq "$(as_user kelvorn-chain --help | grep -oE -- '--bsdl-path [^ ]+')" \
  "--bsdl-path DIR[:DIR...]=$root/usr/bin/../share/kelvorn/bsdl:$work/.local/share/kelvorn/bsdl" \
  "kelvorn-chain --help: the default BSDL directory, beside the program"
bsdl=$root/usr/share/kelvorn/bsdl
expect_eq "$(ls "$bsdl" | paste -sd' ')" "KV_BGA36.BSD KV_FPGA6.BSD kv_cpld64.bsd kv_dap4.bsd kv_io48.bsd" "the BSDL directory: the simulated parts"
# No --bsdl and no --bsdl-path: the names come from the installed directory.
expect_eq "$(as_user kelvorn-sim --chain "bsdl=$bsdl/kv_cpld64.bsd,bsdl=$bsdl/KV_FPGA6.BSD,bsdl=$bsdl/kv_dap4.bsd" \
  chain rotanMotub 0000:03:00.0 2>&1; echo "status $?")" \
  "0: IDCODE 0x0123402f, IR 8 bits (bsdl), Texas Instruments, kv_cpld64, version 0
1: IDCODE 0x0a5c7043, IR 6 bits (bsdl), Lattice Semi., KV_FPGA6, version 0
2: IDCODE 0x4ba00477, IR 4 bits (bsdl), ARM Ltd., KV_DAP4, version 4
3 devices, IR 18 bits in all
status 0" "discovery names the simulated parts from the installed BSDL directory"
# The same chain with the package's directory gone: nothing names them.
mv "$bsdl" "$bsdl.away"
expect_eq "$(as_user kelvorn-sim --chain "bsdl=$bsdl.away/kv_dap4.bsd" chain rotanMotub 0000:03:00.0 2>&1)" \
  "0: IDCODE 0x4ba00477, IR 4 bits (detected), ARM Ltd., version 4
1 device, IR 4 bits in all" "without the directory, no part is named"
mv "$bsdl.away" "$bsdl"

# ---- the first session ----

# The ```sh block after the line <!-- first-session --> (blank lines may
# come between them); status 1 when there is no such block.
first_session() {  # readme
  awk 'state == 0 && $0 == "<!-- first-session -->" { state = 1; next }
       state == 1 && /^[ \t]*$/ { next }
       state == 1 { if ($0 != "```sh") exit; state = 2; next }
       state == 2 && $0 == "```" { state = 3; exit }
       state == 2 { print }
       END { exit state != 3 }' "$1"
}

first_session "$src/README.md" >"$E2E_DIR/first.sh"
expect_eq "$?" 0 "README.md: a \`\`\`sh block follows <!-- first-session -->"
rm -rf "$work" && mkdir -p "$work" "$E2E_DIR/first"
commands=$(e2e_split "$E2E_DIR/first" <"$E2E_DIR/first.sh")
e2e_script "$E2E_DIR/first" '2>&1' >"$E2E_DIR/first/script"
as_user bash "$E2E_DIR/first/script"
e2e_commands "the README's first session ($commands commands) on the installed packages" "$E2E_DIR/first"

e2e_done
