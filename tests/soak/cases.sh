#!/usr/bin/env bash
# One test of script/soak and of the picture that it draws.
# usage: cases.sh case
# The environment names the SOURCE_FOLDER and PYTHON.
# shellcheck source=../support/cases.sh
. "$(dirname "$0")/../support/cases.sh"

# looks n: those of n seconds, of which one has 9 zombies.
looks() {
  local second
  printf '%s\t' seconds "kB resident" descriptors threads children
  echo zombies
  for ((second = 0; second < $1; second++)); do
    printf '%s\t' "$second.1" $((5000 + second)) 17 50 12
    echo $((second == 7 ? 9 : 0))
  done
}

plot() { "$PYTHON" -B "$SOURCE_FOLDER/tests/soak/plot.py" "$@"; }

WhatIsNoLengthIsRefused() {
  local arguments status
  for arguments in 0 10x -3 "10 10" --store=1 "--counts 3"; do
    status=0
    # shellcheck disable=SC2086
    "$SOURCE_FOLDER/script/soak" $arguments 2>"$folder/err" || status=$?
    [ "$status" -eq 2 ] || fail "status $status: $arguments"
    grep -q '^usage: script/soak ' "$folder/err" || fail "no usage: $arguments"
  done
}

EachKindOfUsageHasALineInThePicture() {
  looks 30 >"$folder/looks"
  plot "$folder/looks" "$folder/a.svg"
  plot "$folder/looks" "$folder/b.svg"
  cmp "$folder/a.svg" "$folder/b.svg"
  [ "$(grep -c 'fill="none"' "$folder/a.svg")" -eq 5 ] || fail "not five lines"
  # Thirty looks, all of them.
  [ "$(grep 'fill="none"' "$folder/a.svg" | head -n 1 | tr -cd L | wc -c)" -eq 29 ] || fail "not thirty"
  "$PYTHON" -c 'import sys, xml.dom.minidom; xml.dom.minidom.parse(sys.argv[1])' "$folder/a.svg"
}

APeakIsSeenInALongPicture() {
  looks 6000 >"$folder/looks"
  plot "$folder/looks" "$folder/long.svg"
  local lines
  lines=$(grep 'fill="none"' "$folder/long.svg")
  # Of 5000 to 10999 kB, all of the height; of 9 zombies beside 50 threads, 28.1 of 156.
  grep -q ' 44\.0"' <<<"$(head -n 1 <<<"$lines")" || fail "the highest memory is not drawn"
  [ "$(tail -n 1 <<<"$lines" | grep -c ' 171\.9L')" -eq 1 ] || fail "the peak is not drawn"
  [ "$(head -n 1 <<<"$lines" | tr -cd L | wc -c)" -lt 500 ] || fail "too many points"
  grep -q '>minutes<' "$folder/long.svg" || fail "not in minutes"
}

"$1"
