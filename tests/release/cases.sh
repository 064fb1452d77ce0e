#!/usr/bin/env bash
# One test of script/release, in a copy of the tree that is a repository of its own. The tests, the
# build and the packages are stand-ins that tell that they were called.
# usage: cases.sh case
# The environment names the SOURCE_FOLDER.
# shellcheck source=../support/cases.sh
. "$(dirname "$0")/../support/cases.sh"
export GIT_CONFIG_GLOBAL=/dev/null GIT_CONFIG_NOSYSTEM=1 GIT_CEILING_DIRECTORIES=/
export GIT_AUTHOR_NAME=A GIT_AUTHOR_EMAIL=a@b GIT_COMMITTER_NAME=A GIT_COMMITTER_EMAIL=a@b
export SOURCE_DATE_EPOCH=1800000000  # 2027-01-15
unset GIT_DIR GIT_WORK_TREE GIT_INDEX_FILE

tree=$folder/tree

fail() { echo "$*" >&2; cat "$folder/out" >&2; exit 1; }
expect_same() { diff -u --label expected <(echo "$1") --label actual <(echo "$2") || fail "other than expected"; }

stand_in() {
  mkdir -p "$folder/bin"
  printf '#!/bin/sh\n%s\n' "$2" >"$1"
  chmod +x "$1"
}

# The files that a release looks at, changes or calls, as they are, but for the changes to tell of.
make_tree() {
  local file
  for file in CMakeLists.txt Engine/CMakeLists.txt CHANGELOG.md script/release; do
    mkdir -p "$tree/$(dirname "$file")"
    cp "$SOURCE_FOLDER/$file" "$tree/$file"
  done
  chmod -R u+w "$tree"
  cd "$tree"
  echo /build/ >.gitignore
  set_versions "$1" "${2-}"
  stand_in script/test "echo tests >>'$folder/calls'; exit \$(cat '$folder/test-status')"
  stand_in "$folder/bin/cmake" "echo \"cmake \$*\" >>'$folder/calls'"
  stand_in "$folder/bin/cpack" "echo \"cpack \$*\" >>'$folder/calls'
    mkdir -p build/packages && : >build/packages/libcul1_${3-$1}_amd64.deb"
  echo 0 >"$folder/test-status"
  : >"$folder/calls"
  git init --quiet --initial-branch=main
  git add --all
  git commit --quiet --message "Begin"
}

# set_versions built [released]
set_versions() {
  sed -i "s/^project(cul VERSION [0-9.]*/project(cul VERSION $1/" CMakeLists.txt
  {
    printf '%s\n' '# Changelog' '' '## [Unreleased]' '' '### Added' '' \
      '- One thing, told on' '  two lines.' "- \`Another\`."
    [ -z "$2" ] || printf '\n## [%s] - 2026-01-01\n\n### Added\n\n- The old.\n' "$2"
  } >CHANGELOG.md
}

release() { PATH="$folder/bin:$PATH" script/release "$@" >"$folder/out" 2>&1; }

# refuses text argument...: with that text, and nothing is done.
refuses() {
  local text=$1 head status=0
  shift
  head=$(git rev-parse HEAD 2>/dev/null || true)
  release "$@" || status=$?
  [ "$status" != 0 ] || fail "not refused: $*"
  grep -qF -e "$text" "$folder/out" || fail "refused without the text \"$text\""
  [ ! -s "$folder/calls" ] || fail "was at work: $(cat "$folder/calls")"
  [ "$head" = "$(git rev-parse HEAD 2>/dev/null || true)" ] || fail "a commit was made"
}

AReleaseIsStampedTestedPackagedAndLeftToAPerson() {
  make_tree 1.0.0 1.0.0 1.1.0
  release 1.1.0 || fail "failed"
  expect_same "tests
cmake --preset release
cmake --build --preset release
cpack --preset release" "$(cat "$folder/calls")"
  expect_same "Release 1.1.0" "$(git log -1 --format=%s)"
  [ -z "$(git status --porcelain)" ] || fail "not all is committed"
  grep -q '^project(cul VERSION 1.1.0 ' CMakeLists.txt || fail "CMakeLists.txt"
  expect_same "# Changelog

## [Unreleased]

## [1.1.0] - 2027-01-15

### Added

- One thing, told on
  two lines.
- \`Another\`.

## [1.0.0] - 2026-01-01

### Added

- The old." "$(cat CHANGELOG.md)"
  [ -z "$(git tag)" ] || fail "tagged"
  grep -q 'libcul1_1.1.0_amd64.deb' "$folder/out" || fail "the packages are not named"
  grep -q 'git tag -s v1.1.0' "$folder/out" || fail "nothing is left to a person"
}

TheFirstReleaseHasTheVersionThatIsBuilt() {
  make_tree 1.0.0
  release --without-tests 1.0.0 || fail "failed"
  ! grep -q tests "$folder/calls" || fail "the tests were run"
  grep -q '^## \[1.0.0\] - 2027-01-15$' CHANGELOG.md || fail "CHANGELOG.md"
  : >"$folder/calls"
  refuses "## [Unreleased]" 1.0.1
}

ADryRunChecksAndChangesNothing() {
  make_tree 1.0.0 1.0.0
  release --dry-run 1.0.1 || fail "failed"
  grep -q "1.0.1, 2027-01-15 in CMakeLists.txt" "$folder/out" || fail "does not tell the steps"
  grep -q "script/test" "$folder/out" || fail "does not tell of the tests"
  release --dry-run --without-tests 1.0.1 || fail "failed"
  ! grep -q "script/test" "$folder/out" || fail "tells of tests"
  expect_same "Begin" "$(git log --format=%s)"
  [ -z "$(git status --porcelain)$(cat "$folder/calls")" ] || fail "something was done"
  echo more >>CHANGELOG.md
  refuses "not committed" --dry-run 1.0.1
}

AFailureTakesTheCommitBack() {
  make_tree 1.0.0 1.0.0 1.1.0
  echo 1 >"$folder/test-status"
  ! release 1.1.0 || fail "not refused"
  grep -q "failed, taken back" "$folder/out" || fail "does not say so"
  expect_same "tests" "$(cat "$folder/calls")"
  expect_same "Begin" "$(git log --format=%s)"
  [ -z "$(git status --porcelain)" ] || fail "something is left"
  # Packages of another version than the one that is released.
  stand_in "$folder/bin/cpack" "mkdir -p build/packages && : >build/packages/libcul1_1.0.0_amd64.deb"
  ! release --without-tests 1.1.0 || fail "not refused"
  expect_same "Begin" "$(git log --format=%s)"
}

ATreeThatIsNotReadyIsRefusedWithAllReasons() {
  make_tree 1.0.0 1.0.0
  git checkout --quiet -b other
  git tag v1.1.0
  : >untracked
  refuses "branch main" 1.1.0
  refuses "not committed" 1.1.0
  refuses "a tag v1.1.0" 1.1.0
  rm untracked
  git checkout --quiet main
  refuses "does not come after 1.0.0" 1.0.0
  refuses "does not come after 1.0.0" 0.9.0
  refuses "libcul.so.1" 2.0.0
  release --dry-run 1.0.10 || fail "refused"
}

VersionsThatDoNotAgreeAreRefused() {
  make_tree 1.2.0 1.1.0
  refuses "CMakeLists.txt says 1.2.0, CHANGELOG.md 1.1.0" 1.3.0
  release --dry-run 1.2.0 || fail "refused"
}

NonsenseIsRefusedAndHelpIsPrinted() {
  make_tree 1.0.0
  local argument
  refuses "which version?"
  for argument in 1 1.0 v1.0.0 1.0.0.0 1.0.x 01.0.0 -1.0.0 "1.0.0 " 1.0.0-rc1 99999.0.0; do
    refuses "usage: script/release" "$argument"
  done
  refuses "no option --dry" --dry 1.0.0
  refuses "one version" 1.0.0 1.0.1
  release --help || fail "failed"
  grep -q -e "--without-tests" "$folder/out" || fail "no help"
}

TheTreeAgreesOnItsVersion() {
  cd "$SOURCE_FOLDER"
  : >"$folder/out"
  local built released
  built=$(sed -n 's/^project(cul VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
  released=$(sed -n 's/^## \[\([0-9.]*\)\] - 2[0-9-]*$/\1/p' CHANGELOG.md | head -n 1)
  [ -z "$released" ] || [ "$(printf '%s\n' "$released" "$built" | sort -V | head -n 1)" = "$released" ] ||
    fail "$released is released, and $built is built"
}

"$1"
