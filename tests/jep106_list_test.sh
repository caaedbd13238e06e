# The JEP106 list turned into the table: the project's list passes, with
# every bank whole but the last; a list with a code dropped, repeated or out
# of order, or a bank skipped, fails the build naming its line.
set -uo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
passed=0 failed=0
expect_eq() {
  if [ "$1" = "$2" ]; then passed=$((passed + 1)); else failed=$((failed + 1)); printf 'FAIL: %s\n  expected: %s\n  actual:   %s\n' "$3" "$2" "$1"; fi
}
make_table() { cmake -DIN="$1" -DOUT="$dir/out.inc" -P "$src/cmake/Jep106Table.cmake" 2>&1; }

make_table "$src/jtag/jep106.txt" >/dev/null
expect_eq "$?" 0 "the project's list"
expect_eq "$(grep -c '^        "' "$dir/out.inc")" "$(grep -c '^[0-9]' "$src/jtag/jep106.txt")" "every line a name"
# Per bank: how many codes, and the highest; equal where none is missing.
counts=$(awk 'function hex(s,  i, v) { v = 0; for (i = 3; i <= length(s); i++) v = v * 16 + index("0123456789abcdef", tolower(substr(s, i, 1))) - 1; return v }
  /^[0-9]/ { n[$1]++; if (hex($2) > m[$1]) m[$1] = hex($2) } END { for (b in n) if (n[b] != m[b]) print b }' "$src/jtag/jep106.txt")
expect_eq "$counts" "" "no bank with a code missing"
expect_eq "$(awk '/^[0-9]/ { n[$1]++ } END { for (b = 1; b < 13; b++) if (n[b] != 126) print b }' "$src/jtag/jep106.txt")" "" "banks 1 to 12 whole"

printf 'edition T\n1 0x01 A\n1 0x02 B\n2 0x01 C\n' >"$dir/good.txt"
make_table "$dir/good.txt" >/dev/null
expect_eq "$?" 0 "a small list"
while IFS='|' read -r what list message; do
  printf "$list" >"$dir/bad.txt"
  out=$(make_table "$dir/bad.txt")
  status=$?
  expect_eq "$status $(grep -o "bad.txt:[0-9]*: .*" <<<"$out" | head -n1)" "1 bad.txt:$message" "refused: $what"
done <<'EOS'
a code dropped|edition T\n1 0x01 A\n1 0x03 C\n|3: bank 1 code 3 where code 2 belongs
a code repeated|edition T\n1 0x01 A\n1 0x01 B\n|3: bank 1 code 1 where code 2 belongs
a bank skipped|edition T\n1 0x01 A\n3 0x01 C\n|3: bank 3 after bank 1
a line without a code|edition T\n1 A\n|2: wants BANK 0xCODE NAME: 1 A
EOS
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
