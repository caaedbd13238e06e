# The installed library as its users see it: `cmake --install` to a staging
# prefix, the exported symbols and SONAME, programs built against that
# prefix alone (pkg-config with the shared and with the static library,
# find_package) run in test mode on a PEX 8600 register file, and the Debian
# packages' files and dependencies. libkelvorn's own checks are
# tests/e2e/libkelvorn_test.sh's.
source "$(dirname "$0")/lib.sh" "$1"

consumer_src=$(cd "$(dirname "$0")/consumer" && pwd)
config=$(cache CMAKE_BUILD_TYPE | tr '[:upper:]' '[:lower:]')

# ---- the installed tree ----

e2e_stage
installed() { (cd "$stage" && find . ! -type d \( -type l -printf '%P -> %l\n' -o -printf '%P\n' \) | sort); }
# Each Debian package's documents; the programs' pages and completion; the simulated parts' files.
packages="kelvorn kelvorn-sim libxilinx-dev libxilinx1 libkelvorn-dev libkelvorn-sim1 libkelvorn1 python3-kelvorn"
tools="kelvorn kelvorn-chain kelvorn-play kelvorn-serve kelvorn-sim kelvorn-vectors"
data="bsdl/KV_BGA36.BSD bsdl/KV_FPGA6.BSD bsdl/kv_cpld64.bsd bsdl/kv_dap4.bsd bsdl/kv_io48.bsd netlist/board.net netlist/board.txt"
{
  printf 'share/doc/%s/changelog.gz\nshare/doc/%s/copyright\n' $(for p in $packages; do echo "$p $p"; done)
  printf 'share/man/man1/%s.1.gz\nshare/bash-completion/completions/%s\n' $(for t in $tools; do echo "$t $t"; done)
  printf 'share/kelvorn/%s\n' $data
  for l in xilinx kelvorn kelvorn-sim; do
    [ $l = xilinx ] && echo "$libdir/libxilinx.a"
    printf '%s\n' "$libdir/lib$l.so -> lib$l.so.1" "$libdir/lib$l.so.1 -> lib$l.so.1.0.0" "$libdir/lib$l.so.1.0.0" \
      "$libdir/pkgconfig/$l.pc"
  done
  for t in kelvornConfig kelvornConfigVersion kelvornTargets kelvornTargets-$config kelvornLibTargets \
    kelvornLibTargets-$config; do echo "$libdir/cmake/kelvorn/$t.cmake"; done
} >"$E2E_DIR/manifest"
expect_eq "$(installed | grep -v '^bin/')" "$(sort "$E2E_DIR/manifest" - <<<"include/kelvorn/XilIntfC.h
include/kelvorn/kelvorn.h
lib/python3/dist-packages/kelvorn/__init__.py
lib/python3/dist-packages/kelvorn/py.typed
lib/systemd/system/kelvorn-serve@.service
lib/systemd/system/kelvorn-serve@.socket
share/man/man3/libxilinx.3.gz
share/man/man3/libkelvorn.3.gz
share/man/man7/kelvorn-status.7.gz")" "installed libraries, Python package, manual pages, completion, units and package documents"
# Tools come from kelvorn_install_tool(), and the simulator with kelvorn-vectors; never tests or benchmarks.
expect_eq "$(ls "$stage/bin" | paste -sd' ')" "$tools" "installed tools"
# The simulated parts' BSDL files, as the tests read them, where kelvorn-chain looks by default.
for f in "$src"/tests/data/bsdl/*.[bB][sS][dD]; do
  expect_eq "$(cmp "$f" "$stage/share/kelvorn/bsdl/${f##*/}" && echo same)" same "installed BSDL file ${f##*/}"
done

so=$stage/$libdir/libxilinx.so.1
functions=$(sed -nE 's/^[a-zA-Z].*[ *](XilIntf_[A-Za-z]+)\(.*/\1/p' "$stage/include/kelvorn/XilIntfC.h" | sort)
expect_eq "$(grep -cx XilIntf_bySystem <<<"$functions")" 1 "the header's declarations found"
e2e_exports "$so" "$functions" libxilinx.so.1
expect_eq "$(nm -A "$so" "$stage/$libdir/libxilinx.a" 2>/dev/null | grep -c Fake)" 0 "no test double in the libraries"

# ---- programs built against the staged prefix ----

export PKG_CONFIG_PATH=$stage/$libdir/pkgconfig
cflags=$(pkg-config --cflags xilinx)
libs=$(pkg-config --libs xilinx)
expect_eq "$(echo $cflags $libs)" "-I$stage/include -L$stage/$libdir -lxilinx" "pkg-config --cflags --libs"
static_libs=$(pkg-config --static --libs xilinx)
expect_eq "$(echo $static_libs)" "-L$stage/$libdir -lxilinx -lstdc++" "pkg-config --static --libs"

e2e_cc "$E2E_DIR/pc_shared" "$consumer_src/consumer.c" $cflags $libs -Wl,-rpath,"$stage/$libdir"
# -l:libxilinx.a: the archive although the shared library sits beside it.
e2e_cc "$E2E_DIR/pc_static" "$consumer_src/consumer.c" $cflags ${static_libs/-lxilinx/-l:libxilinx.a}
e2e_cmake "$consumer_src" "$E2E_DIR/cmake"
expect_eq "$(sed -n 's/^kelvorn_DIR:PATH=//p' "$E2E_DIR/cmake/CMakeCache.txt")" "$stage/$libdir/cmake/kelvorn" \
  "find_package: the staged package"

expect_eq "$(needed "$E2E_DIR/pc_shared") $(needed "$E2E_DIR/cmake/consumer")" "libxilinx.so.1 libxilinx.so.1" \
  "shared consumers need libxilinx.so.1"
expect_eq "$(needed "$E2E_DIR/pc_static")$(needed "$E2E_DIR/cmake/consumer_static")" "" "static consumers need no libxilinx"

# Each one, in test mode, on rotanMotub's register file (TMS and TDI high
# before select): select drove TMS and TDI low, TCK stays high.
for prog in pc_shared pc_static cmake/consumer cmake/consumer_static; do
  e2e_rotan_regfile 0x8014
  expect_run 0 "tdo 1" "" "$prog" "$E2E_DIR/$prog"
  e2e_rotan_after 0x8020 "$prog"
done

# ---- the Debian packages ----

# Eight, split as Debian splits a library: libxilinx1 (the runtime under its
# SONAME), libxilinx-dev, kelvorn (the programs), kelvorn-sim (the simulator),
# libkelvorn1, libkelvorn-sim1, libkelvorn-dev and python3-kelvorn; together
# exactly what `cmake --install` installs, each file in one.
cpack -G DEB --config "$E2E_BUILD/CPackConfig.cmake" -B "$E2E_DIR/deb" >"$E2E_DIR/cpack.log" 2>&1 || cat "$E2E_DIR/cpack.log"
deb() { echo "$E2E_DIR"/deb/"$1"_*.deb; }
packaged() {  # package...: its files, under /usr
  local p
  for p; do
    dpkg-deb -c "$(deb "$p")" | awk '$1 !~ /^d/ { sub(/^\.\/usr\//, "", $6); s = $6; for (i = 7; i <= NF; i++) s = s " " $i; print s }'
  done | sort
}
expect_eq "$(ls "$E2E_DIR"/deb/*.deb | sed 's|.*/||; s|_.*||' | sort | paste -sd' ')" \
  "kelvorn kelvorn-sim libkelvorn-dev libkelvorn-sim1 libkelvorn1 libxilinx-dev libxilinx1 python3-kelvorn" "the packages"
expect_eq "$(packaged libxilinx1 libxilinx-dev kelvorn kelvorn-sim libkelvorn1 libkelvorn-sim1 libkelvorn-dev python3-kelvorn)" \
  "$(installed)" "packages: the installed files, under /usr"
expect_eq "$(packaged libxilinx1)" "$libdir/libxilinx.so.1 -> libxilinx.so.1.0.0
$libdir/libxilinx.so.1.0.0
share/doc/libxilinx1/changelog.gz
share/doc/libxilinx1/copyright" "libxilinx1: the library under its SONAME"
expect_eq "$(packaged libxilinx-dev | grep -cE "^(include/|$libdir/libxilinx\.(a|so ->)|$libdir/(pkgconfig|cmake)/|share/man/man3/)")" \
  "$(($(packaged libxilinx-dev | wc -l) - 2))" "libxilinx-dev: headers, link, archive, pkg-config, CMake, section 3"
expect_eq "$(packaged kelvorn | grep -vcE '^(bin/|lib/systemd/system/|share/(man/man[17]|bash-completion|doc/kelvorn)/)')" 0 \
  "kelvorn: programs, pages, completion, units"
expect_eq "$(packaged kelvorn | grep -cE '(^bin/|/)kelvorn-(sim|vectors)')" 0 "kelvorn: no simulator"
# The BSDL directory kelvorn-chain searches is kelvorn's, empty; the simulated parts are kelvorn-sim's.
expect_eq "$(dpkg-deb -c "$(deb kelvorn)" | awk '$6 ~ /^\.\/usr\/share\/kelvorn\/./ { print $1, $6 }')" \
  "drwxr-xr-x ./usr/share/kelvorn/bsdl/" "kelvorn: the BSDL directory"
expect_eq "$(packaged kelvorn-sim)" "$(printf '%s\n' bin/kelvorn-{sim,vectors} share/bash-completion/completions/kelvorn-{sim,vectors} \
  share/doc/kelvorn-sim/{changelog.gz,copyright} $(printf 'share/kelvorn/%s ' $data) share/man/man1/kelvorn-{sim,vectors}.1.gz | sort)" \
  "kelvorn-sim: the simulator, kelvorn-vectors, pages, completion, BSDL files"
expect_eq "$(dpkg-deb -f "$(deb kelvorn-sim)" Recommends)" "kelvorn" "kelvorn-sim recommends kelvorn"
expect_eq "$(dpkg-deb --fsys-tarfile "$(deb libxilinx-dev)" | tar -xO "./usr/$libdir/pkgconfig/xilinx.pc" | head -n1)" \
  "prefix=/usr" "package: pkg-config prefix"
expect_eq "$(dpkg-deb -f "$(deb libxilinx-dev)" Depends)" "libxilinx1 (= 1.0.0)" "libxilinx-dev depends on its library"
depends() { dpkg-deb -f "$(deb "$1")" Depends | tr ',' '\n' | awk '{print $1}'; }  # names, without versions
for pkg in libc6 libstdc++6; do
  expect_eq "$(depends libxilinx1 | grep -cxF "$pkg") $(depends kelvorn | grep -cxF "$pkg") $(depends kelvorn-sim | grep -cxF "$pkg")" \
    "1 1 1" "packages depend on $pkg"
done
expect_eq "$(depends kelvorn | grep -cxF libsystemd0)" 1 "kelvorn depends on libsystemd0 (socket activation)"
# The library's: a shlibs file, and ldconfig from a trigger, not from maintainer scripts.
control() { dpkg-deb --ctrl-tarfile "$(deb libxilinx1)" | tar -t | sed 's|^\./||' | grep . | sort | paste -sd' '; }
expect_eq "$(control)" "control md5sums shlibs triggers" "libxilinx1: control files"
expect_eq "$(dpkg-deb -I "$(deb libxilinx1)" shlibs) / $(dpkg-deb -I "$(deb libxilinx1)" triggers)" \
  "libxilinx 1 libxilinx1 (= 1.0.0) / activate-noawait ldconfig" "libxilinx1: shlibs and trigger"
for lib in libkelvorn1:libkelvorn libkelvorn-sim1:libkelvorn-sim; do
  pkg=${lib%%:*} so=${lib#*:}
  expect_eq "$(packaged "$pkg")" "$libdir/$so.so.1 -> $so.so.1.0.0
$libdir/$so.so.1.0.0
share/doc/$pkg/changelog.gz
share/doc/$pkg/copyright" "$pkg: the library under its SONAME"
  expect_eq "$(dpkg-deb -I "$(deb "$pkg")" shlibs) / $(dpkg-deb -I "$(deb "$pkg")" triggers)" \
    "$so 1 $pkg (= 1.0.0) / activate-noawait ldconfig" "$pkg: shlibs and trigger"
done
expect_eq "$(dpkg-deb -f "$(deb libkelvorn-dev)" Depends | tr -d ' ' | tr ',' '\n' | sort | paste -sd' ')" \
  "libkelvorn-sim1(=1.0.0) libkelvorn1(=1.0.0) libxilinx-dev(=1.0.0)" "libkelvorn-dev depends on both libraries and libxilinx-dev"
expect_eq "$(dpkg-deb -f "$(deb python3-kelvorn)" Architecture Depends Suggests)" "Architecture: all
Depends: libkelvorn1 (= 1.0.0), python3:any
Suggests: libkelvorn-sim1" "python3-kelvorn: architecture all, over libkelvorn1"
# Stripped programs and library (their symbols in -dbgsym packages when the build has them).
for f in "$(deb kelvorn):./usr/bin/kelvorn-serve" "$(deb kelvorn-sim):./usr/bin/kelvorn-sim" "$(deb libxilinx1):./usr/$libdir/libxilinx.so.1.0.0" \
  "$(deb libkelvorn1):./usr/$libdir/libkelvorn.so.1.0.0"; do
  dpkg-deb --fsys-tarfile "${f%%:*}" | tar -xO "${f#*:}" >"$E2E_DIR/binary"
  expect_eq "$(readelf -S "$E2E_DIR/binary" | grep -c '\.symtab\|\.debug_')" 0 "stripped: ${f#*:}"
done
# The maintainer is a build option.
cmake -S "$(dirname "$0")/../.." -B "$E2E_DIR/maint" -G Ninja -DKELVORN_MAINTAINER="Board Team <boards@example.net>" \
  >"$E2E_DIR/maint.log" 2>&1
expect_eq "$(sed -n 's/^set(CPACK_DEBIAN_PACKAGE_MAINTAINER "\(.*\)")$/\1/p' "$E2E_DIR/maint/CPackConfig.cmake")" \
  "Board Team <boards@example.net>" "KELVORN_MAINTAINER: the packages' maintainer"
expect_eq "$(head -n1 "$E2E_DIR/maint/package/changelog") / $(grep -c ' -- Board Team <boards@example.net>  ' "$E2E_DIR/maint/package/changelog")" \
  "kelvorn (1.0.0) unstable; urgency=medium / 1" "KELVORN_MAINTAINER: the changelog's"
# Every package's copyright file is the project's: Apache-2.0 throughout, as LICENSE says.
expect_eq "$(sed -n '2,3p' "$src/LICENSE" | tr -s ' ' | paste -sd'/')" " Apache License/ Version 2.0, January 2004" "LICENSE: Apache 2.0"
for d in "$E2E_DIR"/deb/*.deb; do
  p=$(dpkg-deb -f "$d" Package)
  dpkg-deb --fsys-tarfile "$d" | tar -xO "./usr/share/doc/$p/copyright" >"$E2E_DIR/copyright"
  expect_eq "$(cmp "$E2E_DIR/copyright" "$E2E_BUILD/package/copyright" && grep '^License:' "$E2E_DIR/copyright" | sort -u)" \
    "License: Apache-2.0" "$p: the copyright file, Apache-2.0"
done
# lintian as a user runs it, on every package: no error, no warning.
lintian "$E2E_DIR"/deb/*.deb >"$E2E_DIR/lintian.log" 2>&1
expect_eq "$?/$(grep -E '^[EW]: ' "$E2E_DIR/lintian.log")" "0/" "lintian: no errors, no warnings"

e2e_done
