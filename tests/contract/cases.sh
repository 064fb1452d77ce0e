#!/usr/bin/env bash
# One test of docs/contract.md, or of docs/architecture.md: what the page names must be there.
# usage: cases.sh case
# The environment names SOURCE_FOLDER.
# shellcheck source=../support/cases.sh
. "$(dirname "$0")/../support/cases.sh"

cd "$SOURCE_FOLDER"
page=docs/contract.md

# What stands in backticks on the page, each once and on a line.
marked() { awk -F '\140' '{ for (i = 2; i < NF; i += 2) print $i }' "$page" | sort -u; }

files() { find Engine programs tests cmake docs script -type f; }

# The sources, with literals that continue each other joined.
sources() {
  find Engine programs -name '*.cpp' -o -name '*.h' -o -name '*.S' | sort | xargs cat |
    awk 'BEGIN { RS = "\001" } { gsub(/"[ \t\n]+"/, ""); print }'
}

# expect_none what lines
expect_none() { [ -z "$2" ] || fail "$page names $1 that the tree does not have:"$'\n'"$2"; }

# expect_many number lines: a page that is read wrongly must not pass.
expect_many() {
  [ "$(grep -c . <<<"$2")" -ge "$1" ] || fail "$page is no longer read by this test: $2"
}

# files_are_there number: at least so many are named.
files_are_there() {
  local name named missing=
  named=$(marked | grep -E '^[A-Za-z0-9_./-]+\.(h|cpp|sh|symbols|md)$')
  expect_many "$1" "$named"
  files >"$folder/files"
  for name in $named; do
    grep -qE "(^|/)${name//./\\.}\$" "$folder/files" || missing+="$name"$'\n'
  done
  expect_none files "$missing"
}

EachTextThatItQuotesStandsInTheSources() {
  local text texts missing=
  texts=$(marked | grep '^".*"$')
  expect_many 60 "$texts"
  sources >"$folder/sources"
  while read -r text; do
    grep -qF -e "$text" "$folder/sources" || missing+="$text"$'\n'
  done <<<"$texts"
  expect_none texts "$missing"
}

names_are_there() {
  local name names missing=
  names=$(marked | sed 's/()$//' | grep -E '^[A-Za-z_][A-Za-z0-9_:]*$' | sed 's/.*:://' | sort -u)
  expect_many "$1" "$names"
  { sources; files; cat tests/CMakeLists.txt Engine/CMakeLists.txt; } >"$folder/sources"
  for name in $names; do
    grep -qw -e "$name" "$folder/sources" || missing+="$name"$'\n'
  done
  expect_none names "$missing"
}

# The rows of the section that look like "| `StdPipe.cpp` | constructor 46 47 |".
places() {
  awk -F '\140' '/^## / { here = $0 == "## Numbers of places" } here && /^\|/ && $2 ~ /\.cpp$/ { print $2, $3 }' \
    "$page"
}

# Those of the page and those of the sources, as "StdPipe.cpp 46", each once.
EachNumberOfAPlaceStandsInItsSourceAndOnThePage() {
  local file row rows
  rows=$(places)
  expect_many 21 "$rows"
  while read -r file row; do
    grep -oE '\<[0-9]+\>' <<<"$row" | sed "s/^/$file /"
  done <<<"$rows" | sort -u >"$folder/page"
  grep -roE '\<[0-9]+_place\>' Engine --include='*.cpp' |
    sed 's:.*/::; s/:/ /; s/_place//' | sort -u >"$folder/sources"
  expect_many 118 "$(cat "$folder/page")"
  diff "$folder/page" "$folder/sources" || fail "numbers of places differ: < $page, > the sources"
}

# expect_said text: the page has it as it stands.
expect_said() { grep -qF -e "$1" "$page" || fail "$page does not say \"$1\""; }

TheNumbersThatAreFreeAreThoseOfTheTables() {
  local slots options types
  slots=$(sed -n 's/.*constexpr unsigned slots = \([0-9]*\);/\1/p' Engine/utilities/DebuggerSettingsHKORV.h)
  expect_said "the slot, 0 to $((slots - 1));"
  expect_said "an identifier from $slots on"
  options=$(sed -n 's/^ *parm[A-Z].* = \([0-9]*\),\{0,1\}$/\1/p' Engine/utilities/DebuggerParameters.h |
    sort -n | tail -n 1)
  expect_said "\`DebuggerParameters::ParmType\`, 1 to $options"
  expect_said "a \`ParmType\` from $((options + 1)) on"
  types=$(grep -cE '^ *TYPE\([a-z]' Engine/utilities/TraceFlags.h)
  expect_said "$types bytes, each 0 or 1"
  expect_said "behind $((types - 1)), see *Trace*"
}

NoPlaceHasABareNumber() {
  local bare
  bare=$(sources | tr '\n' ' ' |
    grep -oE '([sS]ourceFile|[fF]unction|Text|\([^()"]*\)( const)?"), +[1-9][0-9]*[,)].{0,40}' || true)
  [ -z "$bare" ] || fail "write 24_place for a place that tools know, else __LINE__:"$'\n'"$bare"
}

EachFileThatItNamesIsThere() { files_are_there 80; }
EachNameThatItGivesStandsInTheSources() { names_are_there 150; }

EachFileOfTheArchitectureIsThere() {
  page=docs/architecture.md
  files_are_there 25
}

EachNameOfTheArchitectureStandsInTheSources() {
  page=docs/architecture.md
  names_are_there 30
}

"$1"
