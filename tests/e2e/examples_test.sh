# Every example of README.md (its ```sh blocks) and of the manual pages
# (the indented blocks of each EXAMPLES section) runs exactly as printed on
# the simulated board, with build/bin on PATH, each block in a directory of
# its own: each command ends with status 0 (an example shows another status
# with '; echo "status $?"'), and where the doc prints output (the comment
# lines right after a command, '# ' taken off) stdout is exactly that
# (e2e_split, e2e_script and e2e_commands in lib.sh). A block after a line
# '<!-- not run: why -->' is skipped; those are counted, so one more does
# not slip in unnoticed.
source "$(dirname "$0")/lib.sh" "$1"

# What the examples read besides the files they make: the BSDL files the
# package installs under /usr/share/kelvorn/bsdl, here from the tree; random
# bytes for images (the namespace's /dev is the test's own directory).
# Each run has a /tmp of its own, where the tree may lie: the programs and
# the files go where the runs see them.
mkdir -p "$E2E_DIR/bin" "$E2E_DIR/share"
cp "$E2E_BUILD"/bin/kelvorn* "$E2E_DIR/bin/"
cp -r "$src/tests/data/bsdl" "$src/tests/data/netlist" "$E2E_DIR/share/"
export KELVORN_SHARE=$E2E_DIR/share
export PATH=$E2E_DIR/bin:$PATH
head -c 1048576 /dev/urandom >"$E2E_DIR/dev/urandom"

# The blocks of a document, each as "@@ block <name>" then its lines; a
# skipped block as "@@ skip <name>: <why>".
blocks() {  # file
  awk -v file="${1#"$src"/}" '
    function start() { n++; name = file " example " n; if (skip != "") print "@@ skip " name ": " skip; else print "@@ block " name; inside = 1 }
    function stop() { inside = 0; skip = "" }
    /^<!-- not run: .* -->$/ { skip = $0; sub(/^<!-- not run: /, "", skip); sub(/ -->$/, "", skip); next }
    file ~ /\.md$/ && file !~ /^docs\/man\// {
      if (!inside && $0 == "```sh") { start(); next }
      if (inside && $0 == "```") { stop(); next }
      if (inside && skip == "") print
      next
    }
    /^# / { examples = ($0 == "# EXAMPLES"); if (inside) stop(); next }
    !examples { next }
    /^    / { if (!inside) start(); if (skip == "") print substr($0, 5); next }
    /^$/ { next }
    { if (inside) stop() }' "$1"
}

docs=("$src/README.md" "$src"/docs/man/*.md)
ran=0
skipped=()
k=0
for doc in "${docs[@]}"; do
  blocks "$doc" >"$E2E_DIR/blocks"
  # One file per block, then each is run.
  rm -f "$E2E_DIR"/block.*
  awk -v out="$E2E_DIR/block." '/^@@ / { n++; print > (out n); next } { print > (out n) }' "$E2E_DIR/blocks"
  for ((b = 1; b <= $(grep -c '^@@ ' "$E2E_DIR/blocks"); b++)); do
    f=$E2E_DIR/block.$b
    head=$(head -n1 "$f")
    if [[ $head == "@@ skip "* ]]; then
      skipped+=("${head#@@ skip }")
      continue
    fi
    k=$((k + 1))
    dir=$E2E_DIR/ex/$k rec=$E2E_DIR/rec/$k  # where it runs, and its records
    mkdir -p "$dir" "$rec"
    tail -n +2 "$f" | e2e_split "$rec" >/dev/null
    { echo "cd '$dir'"; e2e_script "$rec"; } >"$rec/script"
    expect_err 0 "" "${head#@@ block }: the block runs" /bin/bash "$rec/script"
    e2e_commands "${head#@@ block }" "$rec"
    ran=$((ran + 1))
  done
done

# The blocks that run, and the few that do not, by name: a doc that loses
# its examples, or a marker that hides one, shows here.
expect_eq "$ran" 14 "examples run"
printf '%s\n' "${skipped[@]}" >"$E2E_DIR/skipped"
expect_eq "$(cat "$E2E_DIR/skipped")" "README.md example 1: builds and tests the whole tree (CI runs it)
docs/man/kelvorn-chain.1.md example 5: real board
docs/man/kelvorn-chain.1.md example 6: a server until Ctrl-C; tests/e2e/view_test.sh runs it with a browser
docs/man/kelvorn-play.1.md example 2: real board
docs/man/kelvorn-serve.1.md example 3: real board
docs/man/kelvorn.1.md example 2: real board
docs/man/libkelvorn.3.md example 1: C source; docs/library.md holds the whole program, built and run by tests/e2e/libkelvorn_test.sh
docs/man/libxilinx.3.md example 1: C source; docs/library.md holds the whole program" "examples not run"

# The landing page: the two set-up commands first, one first session that
# names only installed programs besides the shell's own tools, within the
# first screen.
expect_eq "$(grep -m2 '^\./scripts/' "$src/README.md" | cut -d' ' -f1 | paste -sd' ')" \
  "./scripts/demo.sh ./scripts/test.sh" "README: the set-up commands first"
expect_eq "$(grep -c '^<!-- first-session -->$' "$src/README.md")" 1 "README: one first session"
first=$(grep -n '^<!-- first-session -->$' "$src/README.md" | cut -d: -f1)
expect_eq "$(sed -n "$((first + 1))p" "$src/README.md")|$([ "$first" -le 50 ] && echo early)" '```sh|early' \
  "README: the first session, a sh block in the first screen"
programs=$(awk -v from="$first" 'NR > from + 1 && /^```$/ { exit } NR > from + 1 && !/^#/ && $1 !~ /^[A-Za-z_]+=/ { print $1 }' "$src/README.md" |
  grep -vxE 'head|cmp|cat' | sort -u | paste -sd' ')
expect_eq "$programs" "kelvorn-sim kelvorn-vectors" "README: the first session runs installed programs only"

e2e_done
