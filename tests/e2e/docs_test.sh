# What a user reads and types beside the programs: every manual page renders
# without a warning and has its sections; each program's page names exactly
# the options its --help lists (kelvorn, which has no --help: its commands);
# --version on every program with one; bash completion offers each
# program's options and kelvorn's commands.
source "$(dirname "$0")/lib.sh" "$1"

bin=$E2E_BUILD/bin
version=$(cache CMAKE_PROJECT_VERSION)

# ---- the pages ----

# The term of each .TP paragraph in a page's OPTIONS section, the words
# that start with - (or, with a second argument, every bold word).
page_options() {  # page [all]
  awk '/^\.SH/ { sec = $0 } sec ~ /OPTIONS/ && prev == ".TP" { print } { prev = $0 }' "$1" |
    grep -oE '\\fB[^\\]+\\fP' | sed -E 's/\\fB(.*)\\fP/\1/' | { [ -n "${2:-}" ] && cat || grep '^-'; } | sort -u
}
# The options a program's --help lists (CLI11: lines that start with blanks and -).
help_options() {  # program [subcommand]
  "$bin/$1" ${2:-} --help | grep -E '^ +-' | grep -oE -- '(^| |,)--?[a-z][a-z0-9-]*' | tr -d ' ,' | sort -u
}

for page in kelvorn.1 kelvorn-play.1 kelvorn-serve.1 kelvorn-chain.1 kelvorn-sim.1 kelvorn-vectors.1 kelvorn-status.7 libxilinx.3 libkelvorn.3; do
  f=$E2E_BUILD/man/$page
  warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$f" 2>&1 >/dev/null)
  expect_eq "$warnings" "" "$page: renders without a warning"
  sections=$(grep '^\.SH' "$f" | sed 's/^\.SH //' | paste -sd,)
  case $page in
  *.1) want="NAME,SYNOPSIS,DESCRIPTION,OPTIONS,EXIT STATUS,*EXAMPLES,SEE ALSO" ;;
  *.3) want="NAME,SYNOPSIS,DESCRIPTION,RETURN VALUE,ERRORS,*EXAMPLES,SEE ALSO" ;;
  *.7) want="NAME,DESCRIPTION,SEE ALSO" ;;
  esac
  [[ $sections == $want ]]
  expect_eq "$?" 0 "$page: sections ($sections)"
  expect_eq "$(zcat "$f.gz" | cmp - "$f" && echo same)" same "$page.gz: the page, compressed"
  expect_eq "$(grep -o -m1 "kelvorn $version" "$f" | head -n1)" "kelvorn $version" "$page: names version $version"
done
for program in kelvorn-play kelvorn-serve kelvorn-chain kelvorn-sim kelvorn-vectors; do
  expect_eq "$(page_options "$E2E_BUILD/man/$program.1")" "$(help_options "$program")" "$program: page and --help name the same options"
done
# kelvorn's usage text is its help: the page names its four commands.
commands=$("$bin/kelvorn" | sed -n 's/^USAGE: .*{ \(.*\) }.*/\1/p' | tr -d ' ' | tr '|' '\n' | sort)
expect_eq "$(page_options "$E2E_BUILD/man/kelvorn.1" all | grep -E '^t' | tr ',' '\n' | tr -d ' ' | grep . | sort)" \
  "$commands" "kelvorn: page and usage name the same commands"

# Exit statuses: kelvorn-status(7) has them all in one table; each tool's
# page lists the same numbers for itself (statuses 0 to 3 are every tool's)
# and refers to it; every program's page refers to the other tools.
statuses_of() {  # program: the numbers kelvorn-status(7)'s table gives it
  awk -F' [|] ' -v p="$1" '/^\| [0-9]/ { sub(/^\| /, ""); if ($2 == "every tool" || $2 == p) print $1 }' \
    "$src/docs/man/kelvorn-status.7.md" | sort -n | paste -sd' '
}
page_statuses() {  # program: the bold numbers of its page's EXIT STATUS, signals aside
  awk '/^# / { sec = $0; next } sec == "# EXIT STATUS"' "$src/docs/man/$1.1.md" |
    grep -oE '\*\*[0-9]+\*\*' | tr -d '*' | grep -vx 128 | sort -n | paste -sd' '
}
expect_eq "$(statuses_of kelvorn-chain)" "0 1 2 3 4 5 6 7 8 9 10" "kelvorn-status: kelvorn-chain's statuses"
for program in kelvorn-chain kelvorn-play kelvorn-serve; do
  expect_eq "$(page_statuses "$program")" "$(statuses_of "$program")" "$program: EXIT STATUS lists the statuses of kelvorn-status(7)"
done
for page in kelvorn kelvorn-chain kelvorn-play kelvorn-serve; do
  f=$src/docs/man/$page.1.md
  awk '/^# EXIT STATUS/ { on = 1; next } /^# / { on = 0 } on' "$f" | grep -q '\*\*kelvorn-status\*\*(7)'
  expect_eq "$?" 0 "$page: EXIT STATUS refers to kelvorn-status(7)"
  want="kelvorn-chain kelvorn-sim kelvorn-status kelvorn-vectors"
  [ "$page" = kelvorn-chain ] && want="kelvorn-sim kelvorn-status kelvorn-vectors"
  expect_eq "$(sed -n '/^# SEE ALSO/,$p' "$f" | grep -oE '\*\*kelvorn-(chain|sim|status|vectors)\*\*' | tr -d '*' | sort | paste -sd' ')" \
    "$want" "$page: SEE ALSO names the tools and kelvorn-status(7)"
done

# ---- --version ----

for program in kelvorn-play kelvorn-serve kelvorn-chain kelvorn-sim kelvorn-vectors; do
  expect_eq "$("$bin/$program" --version; echo "status $?")" "$program $version
status 0" "$program --version"
done

# ---- bash completion ----

completions() {  # words...: what completing the last word offers
  bash -c '
    source /usr/share/bash-completion/bash_completion
    source "$1"; shift
    PATH=$BIN:$PATH
    COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}
    f=$(complete -p "$1" | sed -E "s/.* -F ([^ ]+) .*/\1/")
    "$f" "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD-1]}"
    printf "%s\n" "${COMPREPLY[@]}" | sort -u' sh "$src/docs/completion/kelvorn" "$@"
}
export BIN=$bin
if [ -r /usr/share/bash-completion/bash_completion ]; then
  for program in kelvorn-play kelvorn-serve kelvorn-chain kelvorn-vectors; do
    expect_eq "$(completions "$program" -)" "$(help_options "$program" | grep -v '^-h$')" "$program: completes its options"
  done
  expect_eq "$(completions kelvorn-sim play --)" "$(help_options kelvorn-play | grep -v '^-h$' | grep '^--')" \
    "kelvorn-sim play: completes kelvorn-play's options"
  expect_eq "$(completions kelvorn fodak 0000:00:14.0 '' | paste -sd' ')" "tck tdi tdo tms" "kelvorn: completes its commands"
  expect_eq "$(completions kelvorn-play --format '' | paste -sd' ')" "auto svf xsvf" "kelvorn-play: completes --format"
else
  echo "skipped the completion checks: bash-completion is not installed"
fi

e2e_done
