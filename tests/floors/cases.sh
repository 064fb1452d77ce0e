#!/usr/bin/env bash
# One test of script/floors: that the tree keeps its floors, and what is refused in small trees.
# usage: cases.sh case
# The environment names SOURCE_FOLDER and PYTHON.
# shellcheck source=../support/cases.sh
. "$(dirname "$0")/../support/cases.sh"

floors() { "$PYTHON" "$SOURCE_FOLDER/script/floors" "$@"; }

# file path [included path ...]
file() {
  mkdir -p "$(dirname "$folder/$1")"
  printf '#include "%s"\n' "${@:2}" | grep -v '""' >"$folder/$1" || true
}

# A tree of two floors that keeps them.
small_tree() {
  mkdir -p "$folder/docs"
  file Engine/utilities/Low.h
  file Engine/utilities/Low.cpp Engine/utilities/Low.h Engine/internal/Lower.h
  file Engine/internal/Lower.h
  file Engine/utilities/High.h Engine/utilities/Low.h
  file Engine/utilities/UNIX/High.cpp Engine/utilities/High.h Engine/internal/Lower.h
  file programs/host/main.cpp Engine/utilities/High.h
  file tests/memory/Lower_test.cpp Engine/internal/Lower.h
  cat >"$folder/Engine/floors" <<'END'
# A remark.
1 Ground: what lies low
  utilities Low
  internal
    Lower

2 Roof: what lies high
  utilities High
  utilities/UNIX High
END
  floors --draw "$folder"
}

# listed text...: more lines of the list.
listed() { printf '%s\n' "$@" >>"$folder/Engine/floors"; }

expect_accepted() {
  floors --draw "$folder"
  floors "$folder" || fail "refused"
}

# expect_refused line: the only one that is told.
expect_refused() {
  local told status=0
  floors --draw "$folder" 2>"$folder/drawn" || true
  told=$(floors "$folder" 2>&1) || status=$?
  [ "$status" = 1 ] || fail "status $status"
  diff -u --label expected <(echo "$1") --label actual <(echo "$told") || fail "other than expected"
}

exception_for_low() {
  listed '' Exceptions '' Engine/utilities/Low.cpp \
    '  includes Engine/utilities/High.h' '  because of a reason' '  of two lines.'
}

TheTreeKeepsItsFloorsAndThePictureShowsThem() {
  floors "$SOURCE_FOLDER" || fail "see Engine/floors"
}

AFloorIncludesItselfAndWhatIsBelow() {
  small_tree
  file Engine/utilities/UNIX/High.cpp Engine/utilities/High.h Engine/utilities/Low.h
  expect_accepted
}

AHeaderDoesNotIncludeUpward() {
  small_tree
  file Engine/utilities/High.h
  file Engine/utilities/Low.h Engine/utilities/High.h
  expect_refused 'Engine/utilities/Low.h:1: Engine/utilities/High.h stands on floor 2, above floor 1'
}

ASourceDoesNotIncludeUpward() {
  small_tree
  file Engine/utilities/Low.cpp Engine/utilities/Low.h Engine/utilities/High.h
  expect_refused 'Engine/utilities/Low.cpp:2: Engine/utilities/High.h stands on floor 2, above floor 1'
}

ASourceDoesNotIncludeUpwardInAnotherSpelling() {
  small_tree
  echo ' #  include <Engine/utilities/High.h>' >"$folder/Engine/utilities/Low.cpp"
  expect_refused 'Engine/utilities/Low.cpp:1: Engine/utilities/High.h stands on floor 2, above floor 1'
}

ANamedSourceMayIncludeWhatIsNamed() {
  small_tree
  exception_for_low
  file Engine/utilities/Low.cpp Engine/utilities/Low.h Engine/utilities/High.h
  expect_accepted
}

ANamedSourceIncludesNothingElseUpward() {
  small_tree
  exception_for_low
  file Engine/utilities/Higher.h
  sed -i 's/utilities High/utilities High Higher/' "$folder/Engine/floors"
  file Engine/utilities/Low.cpp Engine/utilities/High.h Engine/utilities/Higher.h
  expect_refused 'Engine/utilities/Low.cpp:2: Engine/utilities/Higher.h stands on floor 2, above floor 1'
}

AnExceptionThatNobodyNeedsIsRefused() {
  small_tree
  exception_for_low
  expect_refused 'Engine/floors:13: Engine/utilities/Low.cpp needs no exception for Engine/utilities/High.h'
}

AnExceptionWithoutAReasonIsRefused() {
  small_tree
  file Engine/utilities/Low.cpp Engine/utilities/High.h
  listed Exceptions 'Engine/utilities/Low.cpp' '  includes Engine/utilities/High.h'
  expect_refused 'Engine/floors:11: an exception says what it includes, and why'
}

AHeaderIsNoException() {
  small_tree
  listed Exceptions 'Engine/utilities/Low.h' '  includes Engine/utilities/High.h because it is.'
  expect_refused 'Engine/floors:11: only a source can be an exception'
}

EachFileHasAFloor() {
  small_tree
  file Engine/utilities/UNIX/Lost.S
  expect_refused 'Engine/utilities/UNIX/Lost.S: has no floor in Engine/floors'
}

WhatIsListedIsThere() {
  small_tree
  rm "$folder/Engine/utilities/UNIX/High.cpp"
  expect_refused 'Engine/floors: Engine/utilities/UNIX/High is not there'
}

ANameHasOneFloor() {
  small_tree
  sed -i 's/^    Lower/    Lower High/' "$folder/Engine/floors"
  file Engine/internal/High.h
  expect_refused 'Engine/floors:8: High stands on floor 1 already
Engine/floors:9: High stands on floor 1 already'
}

ANameIsListedOnce() {
  small_tree
  listed '  utilities High'
  expect_refused 'Engine/floors:10: utilities/High is listed twice'
}

FloorsAreNumberedFromTheBottom() {
  small_tree
  listed '4 Cloud: what floats'
  expect_refused 'Engine/floors:10: neither a floor nor what stands on it'
}

HeadersDoNotIncludeEachOther() {
  small_tree
  sed -i 's/utilities Low/utilities Low Least/' "$folder/Engine/floors"
  file Engine/utilities/Low.h Engine/utilities/Least.h
  file Engine/utilities/Least.h Engine/utilities/Low.h
  expect_refused \
    'headers include each other: Engine/utilities/Low.h -> Engine/utilities/Least.h -> Engine/utilities/Low.h'
}

TheLibraryIncludesByThePathFromTheTop() {
  small_tree
  file Engine/utilities/UNIX/High.cpp High.h
  expect_refused \
    'Engine/utilities/UNIX/High.cpp:1: High.h is not the path of a header from the top of the tree'
}

TheLibraryIncludesNothingButItself() {
  small_tree
  file programs/host/main.h
  file Engine/utilities/UNIX/High.cpp programs/host/main.h Engine/utilities/Low.cpp
  expect_refused 'Engine/utilities/UNIX/High.cpp:1: programs/host/main.h is no header of the library
Engine/utilities/UNIX/High.cpp:2: Engine/utilities/Low.cpp is no header of the library'
}

AnInstalledHeaderIncludesNothingInternal() {
  small_tree
  file Engine/utilities/High.h Engine/internal/Lower.h
  expect_refused 'Engine/utilities/High.h:1: Engine/internal/Lower.h is internal, and not installed'
}

ProgramsIncludeNothingInternal() {
  small_tree
  file programs/host/main.cpp Engine/utilities/High.h Engine/internal/Lower.h
  expect_refused 'programs/host/main.cpp:2: Engine/internal/Lower.h is internal to the library'
}

TestsOfOtherThingsIncludeNothingInternal() {
  small_tree
  file tests/memory/High_test.cpp Engine/internal/Lower.h
  expect_refused 'tests/memory/High_test.cpp:1: Engine/internal/Lower.h is internal to the library'
}

ANamedTestMayIncludeWhatIsInternal() {
  small_tree
  file tests/memory/High_test.cpp Engine/internal/Lower.h
  listed Exceptions tests/memory/High_test.cpp '  includes Engine/internal/Lower.h because of a reason.'
  expect_accepted
}

ThePictureIsThatOfTheFloors() {
  small_tree
  sed -i 's/what lies high/what lies higher/' "$folder/Engine/floors"
  local told
  told=$(floors "$folder" 2>&1) && fail "accepted"
  [ "$told" = 'docs/floors.svg: shows other floors; script/floors --draw makes it anew' ] || fail "$told"
  rm "$folder/docs/floors.svg"
  floors "$folder" 2>/dev/null && fail "accepted without a picture"
  expect_accepted
}

WhatIsNotUnderstoodIsAWrongCall() {
  local status=0
  floors --help >/dev/null 2>"$folder/told" || status=$?
  [ "$status" = 2 ] || fail "status $status"
  grep -q '^usage: script/floors' "$folder/told" || fail "$(cat "$folder/told")"
}

"$1"
