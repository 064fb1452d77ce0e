#!/usr/bin/env bash
# One test of what the compiler refuses in the tables of the library: a table is changed in a
# copy of its header, which is then compiled.
# usage: cases.sh case
# The environment names the tool CXX and SOURCE_FOLDER.
set -euo pipefail
export LC_ALL=C

folder=$(mktemp -d "${TMPDIR:-/tmp}/cul.XXXXXX")
trap 'rm -rf "$folder"' EXIT

fail() { echo "$*" >&2; exit 1; }

# copy_with header expression: a copy of a header or source, changed by an expression of sed.
copy_with() {
  mkdir -p "$folder/$(dirname "$1")"
  sed -E -e "$2" "$SOURCE_FOLDER/$1" >"$folder/$1"
  ! cmp -s "$folder/$1" "$SOURCE_FOLDER/$1" || fail "nothing to change in $1: $2"
}

# compiles file: what was copied before stands in front of what is in the tree.
compiles() {
  (cd "$folder" && "$CXX" -std=c++20 -D_GNU_SOURCE -Wall -Wextra -Wpedantic -Wshadow -Wconversion \
    -Werror -fsyntax-only -I"$folder" -I"$SOURCE_FOLDER" -x c++ - <<<"#include \"$1\"") \
    2>"$folder/errors"
}

expect_accepted() { compiles "$1" || fail "$1 is refused: $(cat "$folder/errors")"; }

# expect_refused file text: with an error that has the text in it, and with no other.
expect_refused() {
  ! compiles "$1" || fail "$1 is accepted"
  [ "$(grep -c 'error: ' "$folder/errors")" = 1 ] && grep -qE "error: .*$2" "$folder/errors" ||
    fail "$1 is refused for another reason: $(cat "$folder/errors")"
}

settings=Engine/internal/SettingTables.h

# with_setting name slot: one more row of the last table of settings, at its beginning.
with_setting() {
  copy_with $settings \
    "s/SettingRow host\[\] = \{/&booleanRow(L\"$1\", Listable, Group::none, Slot{$2}, L\"0\"),/"
}

registry=Engine/utilities/DebuggerSettingsHKORV.h

first_free_slot() {
  sed -nE 's/.*unsigned slots = ([0-9]+);.*/\1/p' "$SOURCE_FOLDER/$registry"
}

with_one_slot_more() {
  copy_with $registry "s/unsigned slots = [0-9]+/unsigned slots = $(($(first_free_slot) + 1))/"
}

ASettingInASlotOfItsOwnIsAccepted() {
  expect_accepted $settings
  with_setting ANOTHER "$(first_free_slot)"
  with_one_slot_more
  expect_accepted $settings
}

ASettingBehindTheLastSlotIsRefused() {
  with_setting ANOTHER "$(first_free_slot)"
  expect_refused $settings "a setting has no slot in the registry"
  with_setting ANOTHER -1
  expect_refused $settings "a setting has no slot in the registry"
}

TwoSettingsOfOneSlotAreRefused() {
  with_setting ANOTHER 54
  expect_refused $settings "two settings have one slot"
  with_setting ANOTHER 0
  expect_refused $settings "two settings have one slot"
}

TwoSettingsOfOneNameAreRefused() {
  with_one_slot_more
  with_setting HRDM_HOST "$(first_free_slot)"
  expect_refused $settings "two settings have one name"
  with_setting FORK "$(first_free_slot)"
  expect_refused $settings "two settings have one name"
}

AColumnOfASettingThatStandsInThePlaceOfAnotherIsRefused() {
  copy_with $settings 's/Group\{16\}, Slot\{21\}/Slot{21}, Group{16}/'
  expect_refused $settings "(could not convert|cannot convert|no matching function)"
}

options=Engine/utilities/DebuggerParameters.cpp

TwoOptionsOfOneNameAreRefused() {
  expect_accepted $options
  copy_with $options 's/\{L"-qhrdmhost"/{L"-qhport"/'
  expect_refused $options "two options have one name"
}

AnOptionWithASecretThatBeginsOtherwiseIsRefused() {
  copy_with $options 's/L"-qhrdmk"/L"-qkey"/'
  expect_refused $options "an option with a secret begins as its name, in lower case"
  copy_with $options 's/L"-qhrdmkey"(.*), L"-qhrdmk"/L"-qHrdmkey"\1, L"-qH"/'
  expect_refused $options "an option with a secret begins as its name, in lower case"
}

[[ "${1-}" == [A-Z]* ]] || fail "usage: cases.sh case"
"$1"
