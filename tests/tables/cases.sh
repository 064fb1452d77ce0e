#!/usr/bin/env bash
# One test of what the compiler refuses in the tables of the library: a table is changed in a
# copy of its header, which is then compiled.
# usage: cases.sh case
# The environment names the tool CXX and SOURCE_FOLDER.
# shellcheck source=../support/cases.sh
. "$(dirname "$0")/../support/cases.sh"

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

# expect_refused file text: the first error says it, in front of the lines that it shows.
expect_refused() {
  local errors
  ! compiles "$1" || fail "$1 is accepted"
  errors=$(<"$folder/errors")
  errors=${errors#*error: }
  grep -qE "$2" <<<"${errors%%[|^~]*}" ||
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

types=Engine/utilities/TraceFlags.h

# with_type row: one more type of trace lines, behind the last.
with_type() { copy_with $types "s/^  TYPE\(.*[^\\\\]\$/& $1/"; }

# One behind all known ones.
free_place() {
  echo $(($(grep -cE '^  (TYPE|WISH)\(.*, [1-9][0-9]*\)' "$SOURCE_FOLDER/$types") + 1))
}

ATypeOfTraceLinesIsEnumeratedCountedTaggedAndKnown() {
  with_type "TYPE(another, \"ANOTHER\", $(free_place))"
  expect_accepted Engine/utilities/TraceFlags.cpp
  expect_accepted Engine/utilities/TraceImplementation.cpp
  cat >"$folder/user.h" <<END
#include "Engine/utilities/TraceFlags.h"
static_assert(static_cast<unsigned>(TraceType::another) == TraceFlags::size - 1);
END
  expect_accepted user.h
}

TwoTypesOfTraceLinesOfOneNameAreRefused() {
  with_type 'TYPE(another, "CLIP", 0)'
  expect_refused Engine/utilities/TraceFlags.cpp "two types of trace lines have one tag"
  with_type 'TYPE(clip, "ANOTHER", 0)'
  expect_refused $types "(redeclaration of|redefinition of enumerator) 'clip'"
}

ATagWithSmallLettersIsRefused() {
  with_type 'TYPE(another, "Another", 0)'
  expect_refused Engine/utilities/TraceFlags.cpp "a tag of trace lines has small letters"
}

APlaceAmongTheKnownTypesThatIsTakenOrTooGreatIsRefused() {
  local place
  for place in 1 3 $(($(free_place) + 1)); do
    with_type "TYPE(another, \"ANOTHER\", $place)"
    expect_refused Engine/utilities/TraceImplementation.cpp "the places of the known trace types"
  done
}

MoreTypesOfTraceLinesThanFitAreRefused() {
  local count rows=
  count=$(grep -c '^  TYPE(' "$SOURCE_FOLDER/$types")
  while [ "$count" -lt 32 ]; do
    rows+=" TYPE(t$count, \"T$count\", 0)"
    count=$((count + 1))
  done
  with_type "$rows"
  expect_accepted Engine/utilities/TraceFlags.cpp
  with_type "$rows TYPE(another, \"ANOTHER\", 0)"
  expect_refused Engine/utilities/TraceFlags.cpp "another type of trace lines moves the fields"
}

variables=Engine/utilities/EnvironmentVariables.h

AnEnvironmentVariableThatIsReadButNotInTheTableIsRefused() {
  expect_accepted Engine/utilities/UTF8Converter.cpp
  copy_with Engine/utilities/UTF8Converter.cpp 's/"QVX_DBG_CODEPAGE"/"QVX_DBG_CODE_PAGE"/'
  expect_refused Engine/utilities/UTF8Converter.cpp "(environmentVariable|throw-expression)"
}

TwoEnvironmentVariablesOfOneNameAreRefused() {
  expect_accepted Engine/utilities/SettingNames.cpp
  copy_with $variables 's/"QVX_DBG_TRACE_LEAF"/"QVX_DBG_TRACE_ROOT"/'
  expect_refused Engine/utilities/SettingNames.cpp "two environment variables have one name"
}

# variables_named folder...: those that the sources name, also where a name does not go through
# environmentVariable().
variables_named() {
  find "$@" -name '*.cpp' -o -name '*.h' | grep -vx $variables | xargs sed 's://.*::' |
    { grep -oE '(getenv|setenv|getEnvVar|environmentVariable)\(L?"[^"]+"|"((QVX|WZ4)_DBG_[A-Z_]+|GDIA_[A-Z_]+)"' ||
      true; } | sed -nE 's/.*"([A-Z0-9_]+)"$/\1/p' | sort -u
}

# Into $folder/table.
read_table() {
  sed -nE 's/^ *\{"([A-Z0-9_]+)".*/\1/p' $variables | sort -u >"$folder/table"
  [ -s "$folder/table" ] || fail "the table is no longer read by this test"
}

TheTableHasTheEnvironmentVariablesThatTheLibraryNames() {
  cd "$SOURCE_FOLDER"
  read_table
  variables_named Engine programs/common >"$folder/named"
  diff -u --label "$variables" "$folder/table" --label "named in the sources" "$folder/named" >&2 ||
    fail "other than expected: environment variables of the library"
}

# All others that a program reads are in the section ENVIRONMENT of its manual page.
AManualPageHasTheEnvironmentVariablesThatItsProgramNamesBesidesTheLibrarys() {
  local page pages=0
  cd "$SOURCE_FOLDER"
  read_table
  for page in programs/*/*.1; do
    pages=$((pages + 1))
    sed -n '/^\.Sh ENVIRONMENT$/,/^\.Sh [^E]/s/^\.It Ev \([A-Z0-9_]*\)$/\1/p' "$page" | sort -u |
      comm -23 - "$folder/table" >"$folder/told"
    variables_named "${page%/*}" | comm -23 - "$folder/table" >"$folder/named"
    diff -u --label "$page" "$folder/told" --label "named in its sources" "$folder/named" >&2 ||
      fail "other than expected: environment variables of a program"
  done
  [ "$pages" = "$(find programs -name main.cpp | wc -l)" ] ||
    fail "a program without a manual page, or the other way round"
}

TwoLanguagesOfMessagesWithTheSameTwoLettersAreRefused() {
  expect_accepted Engine/utilities/msgserv/LibraryMessageServer.cpp
  copy_with Engine/utilities/msgserv/LibraryMessageServer.h 's/"zh_CN"\}/"zh_CN", "de_AT"}/'
  expect_refused Engine/utilities/msgserv/LibraryMessageServer.cpp \
    "two letters must tell the languages of messages apart"
}

"$1"
