#!/usr/bin/env bash
# One test of the examples.
# usage: cases.sh case
# The environment names the folders SOURCE_FOLDER and PROGRAM_FOLDER.
# shellcheck source=../support/cases.sh
. "$(dirname "$0")/../support/cases.sh"

examples=$SOURCE_FOLDER/examples

# prints_what_it_should subsystem: runs the example in a folder of its own, which it leaves empty.
# "..." in what is expected stands for anything on its line.
prints_what_it_should() {
  local program=$PROGRAM_FOLDER/example_$1 expected=$examples/$1.out status=0 line pattern actual
  mkdir "$folder/run"
  (cd "$folder/run" && env -i PATH="$PATH" ${ASAN_OPTIONS:+ASAN_OPTIONS="$ASAN_OPTIONS"} \
    ${TSAN_OPTIONS:+TSAN_OPTIONS="$TSAN_OPTIONS"} ${LD_PRELOAD:+LD_PRELOAD="$LD_PRELOAD"} \
    "$program" >"$folder/out" 2>"$folder/err") ||
    status=$?
  [ "$status" = 0 ] || { cat "$folder/err"; fail "ended with $status"; }
  [ ! -s "$folder/err" ] || { cat "$folder/err"; fail "prints on standard error"; }
  [ -z "$(ls -A "$folder/run")" ] || fail "leaves behind: $(ls -A "$folder/run")"
  while IFS= read -r line <&3; do
    pattern=$(sed 's/[][\\*?]/\\&/g; s/\.\.\./*/g' <<<"$line")
    IFS= read -r actual <&4 || actual="nothing more"
    # shellcheck disable=SC2053  # a pattern
    [[ $actual == $pattern ]] || fail "expected \"$line\", not \"$actual\""
  done 3<"$expected" 4<"$folder/out"
  [ "$(wc -l <"$expected")" = "$(wc -l <"$folder/out")" ] || { cat "$folder/out"; fail "prints more"; }
}

TheOneOfStringsPrintsWhatItSays() { prints_what_it_should strings; }
TheOneOfMemoryPrintsWhatItSays() { prints_what_it_should memory; }
TheOneOfFilesPrintsWhatItSays() { prints_what_it_should files; }
TheOneOfThreadsPrintsWhatItSays() { prints_what_it_should threads; }
TheOneOfTheTracePrintsWhatItSays() { prints_what_it_should trace; }
TheOneOfSettingsPrintsWhatItSays() { prints_what_it_should settings; }
TheOneOfProcessesPrintsWhatItSays() { prints_what_it_should processes; }
TheOneOfMessagesPrintsWhatItSays() { prints_what_it_should messages; }

EachSubsystemHasOneThatIncludesPublicHeadersOnly() {
  local source wrong
  [ "$(cd "$examples" && ls ./*.cpp)" = "$(sed -n 's/.*prints_what_it_should \([a-z]*\); .*/.\/\1.cpp/p' \
    "$0" | sort)" ] || fail "an example without a test, or the other way round"
  for source in "$examples"/*.cpp; do
    wrong=$(grep '#include "' "$source" | grep -v '"Engine/utilities/' || true)
    [ -z "$wrong" ] || fail "$source: $wrong"
    [ "$(wc -l <"$source")" -le 60 ] || fail "$source is longer than a screen"
  done
}

"$1"
