# shellcheck shell=bash
# The head of each script of cases: strict, in the C locale, with a temporary folder of its own.
set -euo pipefail
export LC_ALL=C
export PYTHONDONTWRITEBYTECODE=1

folder=$(mktemp -d "${TMPDIR:-/tmp}/cul.XXXXXX")
trap 'rm -rf "$folder"' EXIT

fail() { echo "$*" >&2; exit 1; }

[[ "${1-}" == [A-Z]* ]] || fail "usage: cases.sh case"

# expect_equal what expected actual
expect_equal() {
  diff -u --label expected <(echo "$2") --label actual <(echo "$3") || fail "other than expected: $1"
}
