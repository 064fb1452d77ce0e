#!/usr/bin/env bash
# One test of script/lint.
# usage: cases.sh case
# The environment names the SOURCE_FOLDER.
# shellcheck source=../support/cases.sh
. "$(dirname "$0")/../support/cases.sh"

tree="$folder/a tree"
output=$folder/output

fail() { echo "$*" >&2; [ ! -f "$output" ] || cat "$output" >&2; exit 1; }

# A small tree with the scripts and settings of this one: a header and two sources, of which one
# includes it.
make_tree() {
  mkdir -p "$tree/script" "$tree/Engine" "$tree/tests"
  cp "$SOURCE_FOLDER"/script/{lint,checks} "$tree/script"
  cp "$SOURCE_FOLDER"/.{clang-format,clang-tidy,shellcheckrc} "$tree"
  cp "$SOURCE_FOLDER/tests/.clang-tidy" "$tree/tests"
  write script/setup "#!/bin/sh"
  chmod +x "$tree/script/setup"
  write Engine/Answer.h "#pragma once" "" "/// It is known." "int answer();"
  write Engine/Answer.cpp '#include "Engine/Answer.h"' "" "int answer() { return 42; }"
  write Engine/Other.cpp "int other();" "" "int other() { return 1; }"
  write CMakeLists.txt \
    "cmake_minimum_required(VERSION 3.25)" \
    "project(small LANGUAGES CXX)" \
    "set(CMAKE_CXX_STANDARD 20)" \
    "set(CMAKE_EXPORT_COMPILE_COMMANDS ON)" \
    "file(GLOB sources CONFIGURE_DEPENDS Engine/*.cpp tests/*.cpp)" \
    'add_library(small ${sources})' \
    'target_include_directories(small PRIVATE ${PROJECT_SOURCE_DIR})' \
    "target_compile_options(small PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)"
}

# write file line...
write() { printf '%s\n' "${@:2}" >"$tree/$1"; }

lint() { "$tree/script/lint" "$@" >"$output" 2>&1; }
expect_clean() { lint "$@" || fail "it is not clean: script/lint $*"; }
expect_findings() { ! lint "$@" || fail "nothing is found: script/lint $*"; }
expect_said() {
  local text
  for text in "$@"; do grep -qF -- "$text" "$output" || fail "it does not say: $text"; done
}

TheFormatNamesFloorsAndScriptsOfThisTreeAreClean() {
  "$SOURCE_FOLDER/script/lint" --quick
}

AnUnchangedTreeIsNotCheckedAgain() {
  make_tree
  # One of its own scripts, which knows no options.
  write script/declarations "#!/bin/sh" '[ $# = 0 ]'
  chmod +x "$tree/script/declarations"
  write Engine/cul.symbols
  expect_clean
  expect_said "clang-tidy: 2 of 2 to check" "g++: 2 of 2" "format: 1 of 1" "declarations: 1 of 1" \
    "script/lint: clean"
  expect_clean
  expect_said "clang-tidy: 0 of 2 to check" "g++: 0 of 2" "format: 0 of 1" "declarations: 0 of 1" \
    "script/lint: clean"
  # Whoever writes the same again has changed nothing.
  touch "$tree"/Engine/*
  expect_clean
  expect_said "clang-tidy: 0 of 2" "g++: 0 of 2" "format: 0 of 1"
}

AChangedHeaderHasThoseCheckedAgainThatIncludeIt() {
  make_tree
  write Engine/Declared.h "#pragma once" "" "/// Alone." "int declared();"
  expect_clean
  write Engine/Answer.h "#pragma once" "" "/// It is still known." "int answer();"
  expect_clean
  expect_said "clang-tidy: 1 of 2" "g++: 1 of 2" "g++ alone: 0 of 1" "clang++ alone: 0 of 1"
  write Engine/Declared.h "#pragma once" "" '#include "Engine/Answer.h"'
  expect_clean
  expect_said "clang-tidy: 0 of 2" "g++ alone: 1 of 1" "clang++ alone: 1 of 1"
  write Engine/Answer.h "#pragma once" "" "int answer() { return unknown; }"
  expect_findings
  expect_said "clang-tidy: 1 of 2" "g++: 1 of 2" "g++ alone: 1 of 1" "clang++ alone: 1 of 1"
}

AScriptThatReadsAllHeadersRunsAgainForANewOneAlsoAfterAPartOfTheTreeWasChecked() {
  make_tree
  write script/declarations "#!/bin/sh" '! grep -n hidden Engine/*.h'
  chmod +x "$tree/script/declarations"
  write Engine/cul.symbols
  expect_clean
  write Engine/New.h "#pragma once" "" "int hidden();"
  expect_findings
  expect_said "declarations: 1 of 1"
  write Engine/New.h "#pragma once" "" "int shown();"
  expect_clean Engine/Answer.h
  write Engine/New.h "#pragma once" "" "int hidden();"
  expect_findings
  expect_said "declarations: 1 of 1"
}

ChangedSettingsHaveAllCheckedAgain() {
  make_tree
  expect_clean
  sed -i "s/^WarningsAsErrors: .*/WarningsAsErrors: 'bugprone-*'/" "$tree/.clang-tidy"
  expect_clean
  expect_said "clang-tidy: 2 of 2" "g++: 0 of 2" "format: 0 of 1"
  echo "target_compile_definitions(small PRIVATE MORE)" >>"$tree/CMakeLists.txt"
  expect_clean
  expect_said "clang-tidy: 2 of 2" "g++: 2 of 2" "format: 0 of 1"
}

EachQuickCheckFindsItsFault() {
  local document="Specific"ation part="Par"t\ 3  # This file may not hold them as they are.
  make_tree
  expect_clean --quick
  write Engine/NotAlone.h "#pragma once" "" "std::string text();"
  write Engine/Guarded.h "#ifndef GUARDED" "#define GUARDED" "#endif"
  write Engine/Other.cpp "int other() {return 1;}"
  write Engine/Quiet.cpp "int quiet = 0;  // NOLINT" "// As $part of the $document has it."
  write tests/Other_test.cpp "TEST(Other, gives_one) {}"
  write script/some "#!/bin/bash" 'rm $1/*'
  write script/snake "#!/usr/bin/env python3" "if x is 1: pass"
  write script/floors "#!/bin/sh" "echo Answer.h includes upward" "exit 1"
  write script/blank "at the end "
  chmod +x "$tree"/script/{some,snake,floors}
  write script/plain "#!/bin/sh"
  expect_findings --quick
  expect_said "Engine/Other.cpp:1:14: error: code should be clang-formatted" \
    "Engine/NotAlone.h:3:6: error" \
    "Engine/Guarded.h:1: a header begins with #pragma once" \
    'Engine/Quiet.cpp:1: "NOLINT" silences a finding without its name' \
    "Engine/Quiet.cpp:2: \"$part\" refers to what a reader of the tree cannot see" \
    "Engine/Quiet.cpp:2: \"$document\" refers to" \
    'tests/Other_test.cpp:1: "TEST(Other, gives_one" is no sentence' \
    "SC2086" "SyntaxError" "Answer.h includes upward" \
    "script/blank:1: white space at the end of a line" \
    "script/plain: a script begins with #! and may be executed" \
    "script/lint: 12 checks have found something"
}

EachCompilerAndClangTidyFindTheirs() {
  make_tree
  write Engine/Gnu.cpp "#include <cstring>" "#include <string>" "" "void wipe(std::string& text);" "" \
    "void wipe(std::string& text) { std::memset(&text, 0, sizeof text); }"
  write Engine/Clang.cpp "class Silent {" "  int never_ = 0;" "};"
  write Engine/Tidy.h "#pragma once" "" "struct Tidy {" "  Tidy(int number);" "};"
  write Engine/Tidy.cpp '#include "Engine/Tidy.h"' "" "Tidy::Tidy(int) {}"
  write Engine/Names.cpp "int Names_one();" "" "int Names_one() { return 1; }"
  write Engine/Analyzed.cpp "int analyzed(int number);" "" "int analyzed(int number) {" \
    "  int* nothing = nullptr;" "  return number > 3 ? *nothing : 0;" "}"
  expect_findings
  expect_said "[-Werror=class-memaccess]" "[clang-diagnostic-unused-private-field" \
    "Engine/Tidy.h:4:3: error" "[google-explicit-constructor" "[readability-identifier-naming" \
    "[clang-analyzer-core.NullDereference" "script/lint: 6 checks have found something"
  # What is in a header is said once, however many include it.
  write Engine/Tidy2.cpp '#include "Engine/Tidy.h"' "" "int tidy();" "" "int tidy() { return 0; }"
  expect_findings
  [ "$(grep -c google-explicit-constructor "$output")" = 1 ] || fail "said more than once"
}

AFindingStaysUntilItIsMended() {
  make_tree
  write Engine/Other.cpp "int other() {return 1;}"
  expect_findings --quick
  expect_findings --quick
  expect_said "format: 1 of 1"
  expect_findings --quick Engine
  write Engine/Other.cpp "int other() { return 1; }"
  expect_clean --quick
}

OnlyWhatIsAskedForIsChecked() {
  make_tree
  write tests/Other_test.cpp "int other() {return 1;}"
  expect_clean --quick Engine
  expect_clean --quick Engine/Other.cpp Engine/Answer.h
  expect_findings --quick tests
  (cd / && expect_findings --quick Engine tests)
  mkdir "$tree/empty"
  expect_findings --quick empty
  expect_said "there is nothing to check"
}

WhatItDoesNotKnowIsRefusedWithItsUsage() {
  make_tree
  local arguments status
  for arguments in --fast -h "--quick --quick" "Engine --quick" Nowhere "" / . ../tree "Engine Engine/No.h"; do
    status=0
    if [ -n "$arguments" ]; then
      # shellcheck disable=SC2086  # several arguments
      lint $arguments || status=$?
    else
      lint "" || status=$?
    fi
    [ "$status" = 2 ] || fail "status $status of script/lint $arguments"
    expect_said "usage: script/lint [--quick] [path...]"
  done
  lint --help || fail "no help"
  expect_said "usage: script/lint [--quick] [path...]"
}

"$1"
