#!/usr/bin/env bash
# One test of the manual that Doxygen makes.
# usage: cases.sh case
# The environment names the tool DOXYGEN and the DOXYFILE of the build.
# shellcheck source=../support/cases.sh
. "$(dirname "$0")/../support/cases.sh"

# Makes the manual of a header, which is read from the standard input, and keeps the warnings.
# The result is that of Doxygen.
document() {
  cat >"$folder/header.h"
  { cat "$DOXYFILE"
    echo "INPUT = $folder/header.h"
    echo "USE_MDFILE_AS_MAINPAGE ="
    echo "OUTPUT_DIRECTORY = $folder"
    echo "GENERATE_XML = YES"
    echo "STRIP_FROM_PATH = $folder"
  } >"$folder/Doxyfile"
  "$DOXYGEN" "$folder/Doxyfile" 2>"$folder/warnings"
}

expect_warnings() {
  diff -u --label expected <(echo "$1") --label actual \
    <(sed -n 's/^[^ ]*: [a-z]*: //p' "$folder/warnings") || fail "other than expected: warnings"
}

# The comments of the class A, each on a line, without what marks them up.
comments() {
  sed -n '/<briefdescription>/,/<\/briefdescription>/p' "$folder/xml/classA.xml" |
    sed 's/<[^>]*>//g; s/^ *//; s/ *$//' | grep .
}

ThePublicHeadersGiveNoWarning() { "$DOXYGEN" "$DOXYFILE"; }

public_headers() { sed -n '/^INPUT = /,/[^\\]$/p' "$DOXYFILE" | tr ' ' '\n' | grep '\.h$'; }

NothingButCommentsIsAddedToTheHeaders() {
  local filter header lost
  read -ra filter < <(sed -n 's/^FILTER_PATTERNS = "\*\.h=\(.*\)"/\1/p' "$DOXYFILE")
  without_comments() { grep -v '^ *///' | grep . || true; }
  for header in $(public_headers); do
    diff -u --label "$header" <(without_comments <"$header") --label filtered \
      <("${filter[@]}" "$header" | without_comments) || fail "other than comments: $header"
    lost=$(diff "$header" <("${filter[@]}" "$header") | grep -c '^<') || true
    [ "$lost" = 0 ] || fail "less comments: $header"
  done
}

EachHeaderIsOnThePageOfOneSubsystem() {
  local groups
  groups=$(sed -n 's/^FILTER_PATTERNS = .* \(.*\)"/\1/p' "$DOXYFILE")
  diff -u --label "public headers" <(public_headers | sed 's/.*\///' | sort) --label "$groups" \
    <(sed -n 's/^\/\/ //p' "$groups" | grep -o '[A-Za-z0-9_]*\.h' | sort) ||
    fail "a header without a page, with two, or none of that name"
}

ThePageOfASubsystemHasItsHeadersAndClassesAndOpensWithItsExample() {
  local page
  { cat "$DOXYFILE"
    echo "OUTPUT_DIRECTORY = $folder"
    echo "GENERATE_XML = YES"
  } >"$folder/Doxyfile"
  "$DOXYGEN" "$folder/Doxyfile"
  page=$folder/xml/group__threads.xml
  grep -q '<innerfile refid="[^"]*">RWlock.h</innerfile>' "$page" || fail "no header"
  grep -q '<innerclass .*>RWlock</innerclass>' "$page" || fail "no class"
  ! grep -q '<innerclass .*>EncodedString<' "$page" || fail "a class that is only named"
  sed 's/<[^>]*>//g' "$folder/html/group__threads.html" >"$folder/text"
  [ "$(grep -n -m 1 'Adds up on threads' "$folder/text" | cut -d : -f 1)" -lt \
    "$(grep -n -m 1 '^ *Classes$' "$folder/text" | cut -d : -f 1)" ] || fail "does not open with it"
}

WhatHasNoCommentIsAWarning() {
  ! document <<'END' || fail "no failure"
/// \file
/// Opens.

class A {
 public:
  A() = default;
  A(const A&) = delete;
  A& operator=(const A&) = delete;
  ~A();

  int undocumented();

  /// Documented.
  int documented();
  int another();

 private:
  int hidden();
};

class B {
 public:
  /// Documented.
  int documented();
};
END
  expect_warnings "Compound B is not documented.
Member undocumented() (function) of class A is not documented.
Member another() (function) of class A is not documented."
}

ACommentThatSpeaksOfSomeParametersIsAWarning() {
  ! document <<'END' || fail "no failure"
/// \file
/// Opens.

/// Adds.
/// \param a a number.
int add(int a, int b);

/// Adds `a` and `b`.
int sum(int a, int b);

/// Adds.
/// \param c a number.
int plus(int a);
END
  grep -q "The following parameter of add(int a, int b) is not documented:" "$folder/warnings"
  grep -q "argument 'c' of command @param is not found" "$folder/warnings"
  ! grep -q sum "$folder/warnings" || fail "a comment without parameters is a warning"
}

AClassWithoutCommentHasTheOpeningOfItsFile() {
  document <<'END' || fail "warnings: $(cat "$folder/warnings")"
#pragma once

/// \file
/// What it is for. And more.

namespace n {
class Other;
}

class A {
 public:
  /// One.
  int one();
};
END
  [ "$(comments | sort | tr '\n' ' ')" = "One. What it is for. And more. " ] || fail "comments: $(comments)"
}

OverloadsGroupsAndWhatEverybodyKnowsShareAComment() {
  document <<'END' || fail "warnings: $(cat "$folder/warnings")"
/// \file
/// Opens.

/// A class.
class A {
 public:
  /// From a number.
  explicit A(int n);
  A(const A& other);
  A(A&& other) noexcept;
  A& operator=(const A& other);
  A& operator=(A&& other) noexcept;

  /// Sets.
  /// \param n a number.
  void set(int n) {
    if (n != 0) {
      other();
    }
  }
  void set(long n);

  bool operator==(const A& other) const;

  /// \name Members
  /// Of a group.
  /// @{
  int first();
  /// Its own.
  int second();
  int third();
  /// @}
};
END
  local expected="A class.
As usual.
Assigns.
Copies.
From a number.
Its own.
Moves.
Moves.
Of a group.
Of a group.
Sets.
Sets."
  diff -u --label expected <(echo "$expected") --label actual <(comments | sort) ||
    fail "other than expected: comments"
}

EachFileThatThePagesForNewcomersNameIsThere() {
  local root name names folders='.ci|Engine|benchmarks|cmake|docs|examples|fuzz|programs|script|tests'
  root=$(sed -n 's/^STRIP_FROM_PATH = //p' "$DOXYFILE")
  cd "$root"
  # What is linked, and in backticks what has a folder in front or an ending behind.
  names=$({
    sed -n 's/.*](\([A-Za-z0-9_./-]*\)).*/\1/p' README.md CONTRIBUTING.md CHANGELOG.md
    awk -F '\140' '{ for (i = 2; i < NF; i += 2) print $i }' README.md CONTRIBUTING.md CHANGELOG.md |
      cut -d ' ' -f 1 |
      grep -E "^($folders)/[A-Za-z0-9_./-]*$|^[A-Za-z0-9_]+\.(h|cpp|md|inc)$"
  } | grep -v xx_XX | sort -u)
  [ "$(grep -c . <<<"$names")" -ge 40 ] || fail "the pages are no longer read by this test: $names"
  for name in $names; do
    [ -e "$name" ] || [ -n "$(find Engine tests programs docs -name "$name" -print -quit)" ] ||
      fail "there is no $name"
  done
}

"$1"
