#!/usr/bin/env bash
# One test of what is made of the results of benchmarks.
# usage: cases.sh case
# The environment names the SOURCE_FOLDER and PYTHON.
# shellcheck source=../support/cases.sh
. "$(dirname "$0")/../support/cases.sh"

expect() {
  diff -u --label expected <(echo "$1") --label actual <(echo "$2") || fail "other than expected"
}

# Results of Google Benchmark, from lines "name: median in ns", where " +- deviation" may follow, and
# " in memory bytes".
results() {
  local line separator="" index=0
  echo '{"benchmarks": ['
  while read -r line; do
    [[ $line =~ ^(.*):\ ([0-9.]+)(\ \+-\ ([0-9.]+))?(\ in\ ([0-9]+)\ bytes)?$ ]]
    for aggregate in "median ${BASH_REMATCH[2]}" "cv ${BASH_REMATCH[4]:-0}"; do
      echo "$separator{\"run_name\": \"${BASH_REMATCH[1]}\", \"run_type\": \"aggregate\",
        \"family_index\": $index, \"aggregate_name\": \"${aggregate% *}\",
        ${BASH_REMATCH[6]:+\"memory\": ${BASH_REMATCH[6]},}
        \"cpu_time\": ${aggregate#* }, \"time_unit\": \"ns\"}"
      separator=,
    done
    index=$((index + 1))
  done
  echo ']}'
}

table() {
  "$PYTHON" "$SOURCE_FOLDER/benchmarks/table.py" --machine "X, 2 cores" --stored "$folder/stored" "$@"
}

# The columns from the ratio to the marks of the table that is read.
marks() { sed -n 's/  */ /g; s/^[a-z]* [0-9.]* [0-9.]* [a-z]* //p'; }

ARowHasARatioAndIsSlowerOnlyBeyondItsBound() {
  results >"$folder/a.json" <<'END'
fast/ours: 10 +- 0.01
fast/peer: 10 +- 0.2
slow/ours: 20
slow/peer: 10
bounded/ours: 40
bounded/peer: 10
bounded/bound: 39
END
  : >"$folder/none.json"
  expect "1.00 noisy
2.00 SLOWER
4.00 3.90" "$(table "$folder/none.json" "$folder/a.json" | marks)"
}

APeerOfAnotherProcessComesToItsCase() {
  results >"$folder/a.json" <<<"work/ours: 12
work/malloc: 10
other/ours: 5
other/malloc: 5"
  results >"$folder/b.json" <<<"work/jemalloc: 8
nobody/jemalloc: 8"
  expect "work 12.00 10.00 malloc 1.20 SLOWER
work 12.00 8.00 jemalloc 1.50 SLOWER
other 5.00 5.00 malloc 1.00" \
    "$(table "$folder/a.json" "$folder/b.json" | sed -n 's/  */ /g; 2,4p')"
}

PeakMemoryIsToldBelowTheTableAndStoredThere() {
  results >"$folder/a.json" <<'END'
read: all/ours: 10 in 6340000 bytes
read: all/grep -F: 10 in 2500000 bytes
read: all/bound: 10 in 2500000 bytes
work/ours: 10
work/peer: 10
END
  local output
  output=$(table --store "$folder/a.json")
  expect "Peak memory: read: all: ours 6.3 MB; grep -F 2.5 MB" "$(grep memory <<<"$output")"
  expect "$(grep memory <<<"$output")" "$(grep memory "$folder/stored")"
  [[ $(table "$folder/a.json") == *"0 worse than in the run of "*"; 0 without a stored one." ]]
}

ARowIsWorseWhenItsRatioHasGrownByMoreThanATenth() {
  results >"$folder/before.json" <<<"same/ours: 10
same/peer: 20
worse/ours: 10
worse/peer: 20"
  table --store "$folder/before.json" >/dev/null
  # The machine is twice as slow today.
  results >"$folder/now.json" <<<"same/ours: 21.9
same/peer: 40
worse/ours: 22.1
worse/peer: 40
fresh/ours: 1
fresh/peer: 1"
  local output
  output=$(table "$folder/now.json")
  expect "0.55 0.50
0.55 0.50 WORSE
1.00" "$(marks <<<"$output")"
  grep -q "^1 worse than in the run of 20..-..-..: .*; 1 without a stored one" <<<"$output"
}

AnotherKindOfMachineIsNotCompared() {
  results >"$folder/a.json" <<<"work/ours: 10
work/peer: 10"
  [[ $(table --store "$folder/a.json") == *"No stored run to compare with." ]]
  results >"$folder/b.json" <<<"work/ours: 90
work/peer: 10"
  local output
  output=$(table --machine "Y, 8 cores" "$folder/b.json")
  grep -q "another kind of machine (X, 2 cores; this is Y, 8 cores)" <<<"$output"
  expect "9.00 SLOWER" "$(marks <<<"$output")"
}

ADamagedStoredRunIsRefusedWithItsLine() {
  results >"$folder/a.json" <<<"work/ours: 10
work/peer: 10"
  table --store "$folder/a.json" >/dev/null
  local whole damage output
  whole=$(cat "$folder/stored")
  for damage in "s/  10.00  /  0.00  /" "s/10.00/ten/" "s/  peer .*//" "s/^machine/engine/" "1,\$d"; do
    sed "$damage" <<<"$whole" >"$folder/stored"
    ! output=$(table "$folder/a.json" 2>&1) || fail "taken after $damage"
    [[ $output == "$folder/stored: no "* && $output != *Traceback* ]] || fail "$damage: $output"
  done
}

OnlyStoringChangesTheStoredRun() {
  results >"$folder/a.json" <<<"work/ours: 10
work/peer: 10"
  table --store "$folder/a.json" >/dev/null
  results >"$folder/b.json" <<<"work/ours: 90
work/peer: 10"
  local before
  before=$(cat "$folder/stored")
  table "$folder/b.json" >/dev/null
  expect "$before" "$(cat "$folder/stored")"
  [[ $(table --store "$folder/b.json") == *WORSE* ]]
  grep -q "9.00 *SLOWER$" "$folder/stored"
}

ThePictureOfATableIsTheSameEachTime() {
  results >"$folder/a.json" <<'END'
EncodedString: build and destroy 20 bytes, second thread idle/ours: 30
EncodedString: build and destroy 20 bytes, second thread idle/std::string: 15
EncodedString: build and destroy 20 bytes, 8 threads/ours: 200
EncodedString: build and destroy 20 bytes, 8 threads/std::string: 8
END
  table --store "$folder/a.json" >/dev/null
  for picture in first second; do
    "$PYTHON" "$SOURCE_FOLDER/benchmarks/plot.py" "$folder/stored" "$folder/$picture.svg"
  done
  cmp "$folder/first.svg" "$folder/second.svg"
  expect 4 "$(grep -c '<circle' "$folder/first.svg")"
  "$PYTHON" -c 'import sys, xml.dom.minidom; xml.dom.minidom.parse(sys.argv[1])' "$folder/first.svg"
}

"$1"
