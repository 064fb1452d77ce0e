#!/usr/bin/env bash
# One test of what the library and its configuration module offer to the loader and ask of it.
# usage: cases.sh case
# The environment names SOURCE_FOLDER, LIBRARY_FOLDER and a list of the PUBLIC_HEADERS.
# shellcheck source=../support/cases.sh
. "$(dirname "$0")/../support/cases.sh"

library=$LIBRARY_FOLDER/libcul.so
module=$LIBRARY_FOLDER/libwobnConfig.so

# entries binary name: the entries of that name in what the loader reads.
entries() { readelf -d "$1" | sed -n "s/^.*($2).*\[\(.*\)\]$/\1/p" | sort; }

TheLibraryExportsWhatIsListed() {
  expect_equal "exported symbols (the target update-symbols accepts them)" \
    "$(cat "$SOURCE_FOLDER/Engine/cul.symbols")" \
    "$("$SOURCE_FOLDER/cmake/exported-symbols" "$library")"
}

# compare_with description
compare_with() {
  "$SOURCE_FOLDER/cmake/abi-description" "$library" "$PUBLIC_HEADERS" "$1"
}

TheInterfaceIsTheOneDescribed() {
  compare_with "$SOURCE_FOLDER/Engine/cul.abi" ||
    fail "the interface has changed (the target update-symbols accepts it)"
}

TheDescriptionTellsLayoutsAndNothingOfThisMachine() {
  local description
  description=$(<"$SOURCE_FOLDER/Engine/cul.abi")
  # A library whose texts had their length somewhere else.
  sed "s/layout-offset-in-bits='128'/layout-offset-in-bits='160'/" "$SOURCE_FOLDER/Engine/cul.abi" \
    >"$folder/other.abi"
  ! compare_with "$folder/other.abi" >"$folder/differences" ||
    fail "no difference between layouts"
  grep -q "'unsigned int len' offset changed from 160 to 128" "$folder/differences" ||
    fail "$(cat "$folder/differences")"
  expect_equal "sources outside of the tree" "" \
    "$(grep "<abi-instr" <<<"$description" | grep -v " path='Engine/" || true)"
}

NothingOfTheStandardLibraryIsExported() {
  expect_equal "symbols in namespace std or __gnu_cxx" "" \
    "$("$SOURCE_FOLDER/cmake/exported-symbols" "$library" |
      grep -E '^_Z(GV|T[A-Z])?Z?N?K?(S|9__gnu_cxx)' || true)"
}

TheLibraryIsNamedForItsMajorVersion() {
  expect_equal "name of the library" libcul.so.1 "$(entries "$library" SONAME)"
  expect_equal "name of the module" "" "$(entries "$module" SONAME)"
}

TheStandardLibrariesAreEnough() {
  expect_equal "libraries needed" "ld-linux-x86-64.so.2
libc.so.6
libgcc_s.so.1
libstdc++.so.6" "$(cat <(entries "$library" NEEDED) <(entries "$module" NEEDED) | sort -u)"
}

TheModuleIsLookedForBesideTheLibraryAndInItsFolderOfModules() {
  expect_equal "folders searched for libraries" '$ORIGIN:$ORIGIN/cul' "$(entries "$library" RUNPATH)"
}

"$1"
