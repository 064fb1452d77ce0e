#!/usr/bin/env bash
# One test of script/declarations: what installed headers may declare, in the tree and in small ones.
# usage: cases.sh case
# The environment names SOURCE_FOLDER and PYTHON.
# shellcheck source=../support/cases.sh
. "$(dirname "$0")/../support/cases.sh"

# header [lines]: a tree that exports what is called exported; the header's first line is the fifth.
header() {
  mkdir -p "$folder/Engine/utilities"
  printf '%s\n' '_Z8exportedv exported()' '_ZN5Class8exportedEv Class::exported()' \
    >"$folder/Engine/cul.symbols"
  printf '%s\n' '#pragma once' '' 'void exported();' '' "$@" >"$folder/Engine/utilities/One.h"
}

declarations() { "$PYTHON" "$SOURCE_FOLDER/script/declarations" "$folder"; }

expect_accepted() { header "$@"; declarations || fail "refused"; }

# expect_refused what lines: what of the lines is refused.
expect_refused() {
  header "${@:2}"
  local told status=0
  told=$(declarations 2>&1) || status=$?
  [ "$status" = 1 ] || fail "status $status"
  diff -u --label expected --label actual \
    <(echo "Engine/utilities/One.h:$1 is declared here, but neither exported nor defined") \
    <(echo "$told") || fail "other than expected"
}

InstalledHeadersDeclareWhatIsExportedOrDefined() {
  "$PYTHON" "$SOURCE_FOLDER/script/declarations" || fail "see script/declarations"
}

WhatIsDefinedInTheHeaderIsNotExported() {
  expect_accepted \
    'inline int one();' 'inline int one() { return 1; }' \
    'template <typename T> T two(T);' 'template <typename T> struct Three { void four(); };' \
    'inline constexpr int five = 5; extern const int five;' \
    'class Class {' ' public:' '  Class() = default;' '  Class(const Class&) = delete;' \
    '  void exported();' '  virtual void six() = 0;' '  void seven();' \
    '  static constexpr int eight = 8;' '};' 'inline void Class::seven() {}'
}

AFunctionThatIsNotExportedIsRefused() {
  expect_refused '6: other' '' 'void other();'
}

AVariableThatIsNotExportedIsRefused() {
  expect_refused '5: other' 'extern int other;'
}

AMemberThatIsNotExportedIsRefused() {
  expect_refused '8: Class::other' 'struct Class {' '  struct Inner { int a; };' \
    '  void exported();' '  void other();' '};'
}

APrivateMemberThatDoesNotSayThatItIsHiddenIsRefused() {
  expect_refused '6: Class::other' 'class Class {' '  void other();' '};'
}

APrivateMemberMaySayThatItIsHidden() {
  expect_accepted 'class Class {' '  [[gnu::visibility("hidden")]] static void other();' \
    '  static const int size __attribute__((visibility("hidden")));' '};'
}

APublicMemberIsNotHidden() {
  expect_refused '7: Class::other' 'class Class {' ' public:' \
    '  [[gnu::visibility("hidden")]] void other();' '};'
}

AFriendIsNotOffered() {
  expect_accepted 'class Class {' '  friend void other();' '  friend class Another;' '};'
}

AHeaderThatDoesNotCompileIsNoSuccess() {
  header 'void other(;'
  ! declarations 2>/dev/null || fail "accepted"
}

"$1"
