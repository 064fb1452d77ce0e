#!/usr/bin/env bash
# One test of script/mutants, in a small tree with a library of one source.
# usage: cases.sh case
# The environment names SOURCE_FOLDER and PYTHON.
# shellcheck source=../support/cases.sh
. "$(dirname "$0")/../support/cases.sh"

tree=$folder/tree

# write file line...
write() {
  mkdir -p "$tree/$(dirname "$1")"
  printf '%s\n' "${@:2}" >"$tree/$1"
}

# make_tree line...: a tree whose source has these lines, and the tests TESTS.
make_tree() {
  write Engine/floors "1 Text: words" "" "  utilities Small" "" Exceptions
  write Engine/utilities/Small.h "#pragma once" "int limited(int value);"
  write Engine/utilities/Small.cpp '#include "Engine/utilities/Small.h"' "$@"
  write tests/strings/Small_test.cpp '#include "Engine/utilities/Small.h"' \
    '#include <gtest/gtest.h>' \
    "${TESTS[@]}"
  write CMakePresets.json '{"version": 6, "configurePresets": [{"name": "release",' \
    '"generator": "Ninja", "binaryDir": "${sourceDir}/build/release",' \
    '"cacheVariables": {"CMAKE_BUILD_TYPE": "RelWithDebInfo"}}]}'
  write CMakeLists.txt "cmake_minimum_required(VERSION 3.25)" "project(small LANGUAGES CXX)" \
    "set(CMAKE_EXPORT_COMPILE_COMMANDS ON)" "set(CMAKE_CXX_STANDARD 20)" \
    'set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)' \
    'set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)' \
    'find_package(GTest REQUIRED)' \
    'add_library(cul SHARED Engine/utilities/Small.cpp)' \
    'target_include_directories(cul PUBLIC ${PROJECT_SOURCE_DIR})' \
    'set_target_properties(cul PROPERTIES SOVERSION 1 VERSION 1.0.0)' \
    'add_executable(strings_test tests/strings/Small_test.cpp)' \
    'target_link_libraries(strings_test cul GTest::gtest_main)' "${BUILD[@]}"
}

# Where a container gives no name spaces, and what is tried harms nobody.
guard=()
unshare --map-root-user --mount --pid --fork --mount-proc true 2>/dev/null || guard=(--unguarded)

# mutants option...: what it reports is in "report".
mutants() {
  "$SOURCE_FOLDER/script/mutants" --tree "$tree" "$@" >"$folder/report" 2>"$folder/progress"
}
fail() { echo "$*" >&2; cat "$folder/progress" "$folder/report" >&2; exit 1; }

# "kind outcome" of each mutant that was tried, in the order of the source.
outcomes() {
  sort -t : -k 2n -k 3n "$tree/build/mutants/results/results" | cut -f 3,7 | tr '\t' ' '
}

BUILD=()
LIMITED=(
  "int limited(int value) {"
  "  const int unused = 3;"
  "  if (value > 7) {"
  "    return 9;"
  "  }"
  "  return value;"
  "}")
TESTS=("TEST(Small, IsLimited) { EXPECT_EQ(limited(100), 9); EXPECT_EQ(limited(3), 3); }")

WhatNoTestNoticesIsListedUntilATestDoesOrAReasonIsGiven() {
  make_tree "${LIMITED[@]}"
  ! mutants "${guard[@]}" || fail "nothing survived"
  expect_equal outcomes "constant same
condition killed
comparison survived
constant survived
constant killed
return killed" "$(outcomes)"
  expect_equal survivors "survived: Engine/utilities/Small.cpp:4:13 limited (comparison)
  if (value > 7) {
  if (value >= 7) {
survived: Engine/utilities/Small.cpp:4:15 limited (constant)
  if (value > 7) {
  if (value > 8) {" "$(grep -A 2 survived: "$folder/report")"

  # A reason holds wherever the function is moved to.
  write tests/mutants/kept "# A remark." "" "Engine/utilities/Small.cpp limited" \
    "  if (value > 7) {" "  if (value >= 7) {" "  because nobody asks" "  for it."
  make_tree "" "${LIMITED[@]}"
  ! mutants "${guard[@]}" || fail "the other one has no reason"
  expect_equal "tried again" "" "$(grep ' of ' "$folder/progress" || true)"
  expect_equal "survivors" "survived: Engine/utilities/Small.cpp:4:15 limited (constant)" \
    "$(grep survived: "$folder/report")"

  TESTS+=("TEST(Small, IsLimitedFrom8On) { EXPECT_EQ(limited(8), 9); }")
  make_tree "" "${LIMITED[@]}"
  mutants --again "${guard[@]}" || fail "a mutant survives"
  expect_equal "tried again" 1 "$(grep -c ' of 1: 1 killed$' "$folder/progress")"

  write tests/mutants/kept "Engine/utilities/Small.cpp limited" "  if (value > 7) {" \
    "  if (value >= 7) {" "  because nobody asks" "" "Engine/utilities/Small.cpp limited" \
    "  if (value > 6) {" "  if (value >= 6) {" "  because nobody asked"
  ! mutants --report || fail "a reason is of no mutant"
  expect_equal "reasons of no mutant" "kept, but no mutant: Engine/utilities/Small.cpp limited
  if (value > 6) {
  if (value >= 6) {" "$(grep -A 2 'no mutant' "$folder/report")"
}

ATestThatFailsByItselfKillsNoMutant() {
  TESTS=("#include <filesystem>"
    "TEST(Small, IsLimited) {"
    "  EXPECT_EQ(limited(100), 9);"
    "  EXPECT_FALSE(std::filesystem::exists(\"$tree/trouble\"));"
    "}")
  make_tree "${LIMITED[@]}"
  mutants --sample 0 "${guard[@]}" || fail "the test does not pass"
  write trouble ""
  ! mutants "${guard[@]}" || fail "nothing went wrong"
  expect_equal told "script/mutants: Small.IsLimited fails without a mutant, too" \
    "$(tail -n 1 "$folder/progress")"
  expect_equal "mutants that were killed" "" "$(grep killed "$tree/build/mutants/results/results" || true)"
}

AMutantFindsWhatLiesBesideTheLibrary() {
  write beside.cpp "int beside;"
  BUILD=('add_library(beside MODULE beside.cpp)' 'add_dependencies(cul beside)'
    'set_target_properties(cul PROPERTIES BUILD_RPATH "$ORIGIN")')
  TESTS=("TEST(Small, IsLimited) { EXPECT_EQ(limited(3), 3); }")
  make_tree "#include <dlfcn.h>" "int limited(int value) {" \
    '  return dlopen("libbeside.so", RTLD_NOW) == nullptr ? 0 : value;' "}"
  local how
  for how in "" --unguarded; do
    rm -f "$tree/build/mutants/results/results"
    ! mutants ${how:-"${guard[@]}"} || fail "nothing survived"
    expect_equal "outcomes $how" "comparison killed
constant survived" "$(outcomes)"
  done
}

AResultIsForgottenWithItsFunctionOrTest() {
  local other=("int other(int value) {" "  return value;" "}")
  TESTS=("int other(int value);"
    "TEST(Small, IsLimited) { EXPECT_EQ(limited(7), 7); }"
    "TEST(Small, IsAnother) { EXPECT_EQ(other(7), 7); }")
  make_tree "${LIMITED[@]}" "${other[@]}"
  ! mutants "${guard[@]}" || fail "nothing survived"
  expect_equal noticed 4 "$(awk '$1 == "all" { print $3 }' "$folder/report")"

  LIMITED[0]="int limited(const int value) {"
  make_tree "" "${LIMITED[@]}" "${other[@]}"
  mutants --report || fail "survivors of what is no more"
  expect_equal "noticed by the function as it was" 1 \
    "$(awk '$1 == "all" { print $3 }' "$folder/report")"
  ! mutants "${guard[@]}" || fail "nothing survived"
  expect_equal "tried again" 6 "$(grep -c ' of 6: ' "$folder/progress")"

  TESTS[2]="TEST(Small, IsTheOtherOne) { EXPECT_EQ(other(7), 7); }"
  make_tree "" "${LIMITED[@]}" "${other[@]}"
  ! mutants "${guard[@]}" || fail "nothing survived"
  expect_equal "tried again" 1 "$(grep -c ' of 1: 1 killed$' "$folder/progress")"
}

AMutantReachesNoProcessAndNoFileOfTheMachine() {
  : >"$folder/file"
  elsewhere=$(mktemp /var/tmp/cul.XXXXXX)
  shared=$(mktemp /dev/shm/cul.XXXXXX)
  sleep 1000 &
  process=$!
  trap 'kill "$process" || true; rm -rf "$folder" "$elsewhere" "$shared"' EXIT
  TESTS=("TEST(Small, HarmsNobody) { EXPECT_EQ(limited(3), 3); }")
  make_tree "#include <signal.h>" "#include <unistd.h>" \
    "int limited(int value) {" \
    "  if (value == 4) {" \
    "    unlink(\"$folder/file\");" \
    "    unlink(\"$tree/CMakeLists.txt\");" \
    "    unlink(\"$elsewhere\");" \
    "    unlink(\"$shared\");" \
    "    kill($process, SIGKILL);" \
    "  }" \
    "  return value;" \
    "}"
  if [ ${#guard[@]} = 0 ]; then
    ! mutants || fail "nothing survived"
    expect_equal outcomes "comparison survived" "$(outcomes | head -n 1)"
  else
    ! mutants || fail "tried without name spaces"
    grep -q "cannot make name spaces" "$folder/progress" || fail "it does not say why"
  fi
  kill -0 "$process" || fail "the process was ended"
  [ -e "$folder/file" ] || fail "the file was deleted"
  [ -e "$tree/CMakeLists.txt" ] || fail "a source was deleted"
  [ -e "$elsewhere" ] || fail "a file elsewhere was deleted"
  [ -e "$shared" ] || fail "shared memory was deleted"
}

"$1"
