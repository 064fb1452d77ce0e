#!/usr/bin/env bash
# One test of what is installed and packaged, in a temporary folder of its own.
# usage: cases.sh case
# The environment names the tools CMAKE, CPACK and CXX, the folders SOURCE_FOLDER and
# BUILD_FOLDER, and the VERSION.
set -euo pipefail
export LC_ALL=C

folder=$(mktemp -d "${TMPDIR:-/tmp}/cul.XXXXXX")
trap 'rm -rf "$folder"' EXIT
consumer=$SOURCE_FOLDER/tests/package/consumer
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)

fail() { echo "$*" >&2; exit 1; }

# expect_equal what expected actual
expect_equal() {
  diff -u --label expected <(echo "$2") --label actual <(echo "$3") || fail "other than expected: $1"
}

# Runs a command that may talk; its words are shown when it fails.
quietly() { "$@" >"$folder/log" 2>&1 || { cat "$folder/log"; fail "failed: $*"; }; }

# Installs into one folder and moves the tree from there to $prefix.
install_and_move() {
  prefix="$folder/moved/to there"
  mkdir "$folder/moved"
  quietly "$CMAKE" --install "$BUILD_FOLDER" --prefix "$folder/installed"
  mv "$folder/installed" "$prefix"
}

headers_of() { (cd "$1" && find Engine -name '*.h' | sort); }

# expect_consumer_runs folder [library folder]: the program and its catalog in a folder; the
# library where the program looks for it or in a folder named.
expect_consumer_runs() {
  expect_equal "the consumer's output" $'5 characters in 10 bytes\nSOURCE\nguten Tag' \
    "$(env -i LANG=de_DE LD_LIBRARY_PATH="$1${2:+:$2}" "$1/consumer")"
}

FindPackageFindsAMovedTree() {
  install_and_move
  quietly "$CMAKE" -S "$consumer" -B "$folder/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix"
  quietly "$CMAKE" --build "$folder/build"
  expect_consumer_runs "$folder/build"
}

FindPackageRefusesIncompatibleVersions() {
  install_and_move
  for version in 0.9 2.0 "${VERSION%.*}.999"; do
    ! "$CMAKE" -S "$consumer" -B "$folder/$version" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
        -DWANTED_VERSION="$version" >"$folder/log" 2>&1 || fail "version $version was found"
    grep -q "requested version \"$version\"" "$folder/log" ||
      { cat "$folder/log"; fail "refused for another reason"; }
  done
}

PkgConfigFindsAMovedTree() {
  install_and_move
  export PKG_CONFIG_PATH="$prefix/lib/$multiarch/pkgconfig"
  expect_equal version "$VERSION" "$(pkg-config --modversion cul)"
  local flags
  eval "flags=($(pkg-config --cflags --libs cul))"
  "$CXX" -std=c++20 "$consumer/main.cpp" -o "$folder/consumer" "${flags[@]}"
  "$prefix/bin/cul-message-compiler" -o "$folder/messages.cpp" \
    en_US="$consumer/messages/en_US.msg" de_DE="$consumer/messages/de_DE.msg"
  "$CXX" -std=c++20 -shared -fPIC "$folder/messages.cpp" -o "$folder/libwobnconsumer.so"
  expect_consumer_runs "$folder" "$prefix/lib/$multiarch"
}

AddSubdirectoryOffersTheSameTarget() {
  quietly "$CMAKE" -S "$consumer" -B "$folder/build" -G Ninja -DCUL_SOURCE_FOLDER="$SOURCE_FOLDER"
  # To compile is enough, the library itself is built elsewhere.
  quietly "$CMAKE" --build "$folder/build" --target CMakeFiles/consumer.dir/main.cpp.o \
    --target consumer_messages
  expect_equal "tests that come along" "" "$(find "$folder/build" -name CTestTestfile.cmake)"
}

TheHostRunsFromAMovedTree() {
  install_and_move
  local status=0
  env -i "$prefix/bin/enginehost" -- /bin/sh -c 'exit 7' || status=$?
  expect_equal status 7 $status
}

NoInstalledTextNamesAFolderOfTheBuild() {
  install_and_move
  expect_equal "texts that name a folder" "" \
    "$(grep -rIlF -e "$SOURCE_FOLDER" -e "$BUILD_FOLDER" -e "$folder" "$prefix")"
}

AllHeadersButInternalOnesAreInstalled() {
  install_and_move
  cd "$SOURCE_FOLDER"
  expect_equal "headers" "$(headers_of . | grep -v '^Engine/internal/')" \
    "$(headers_of "$prefix/include")"
  expect_equal "installed headers that include what is not installed" "" \
    "$(grep -rl '#include "Engine/internal/' "$prefix/include")"
}

EachInstalledHeaderCompilesAlone() {
  install_and_move
  cd "$prefix/include"
  headers_of . | xargs -P "$(nproc)" -I{} sh -c 'echo "#include \"{}\"" |
    "$0" -std=c++20 -I. -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror \
      -fsyntax-only -x c++ - || { echo "{} does not compile alone" >&2; exit 1; }' "$CXX"
}

# make_packages folder: the packages, in a folder of that name.
make_packages() {
  SOURCE_DATE_EPOCH=1700000000 \
    quietly "$CPACK" -G DEB -B "$folder/$1" --config "$BUILD_FOLDER/CPackConfig.cmake"
  rm -rf "${folder:?}/$1/_CPack_Packages"
}

PackagesOfOneBuildAreTheSameBytes() {
  make_packages once
  make_packages again
  expect_equal packages "$(cd "$folder/once" && sha256sum ./*)" \
    "$(cd "$folder/again" && sha256sum ./*)"
}

ThePackagesAreNamedDescribedAndConnected() {
  make_packages packages
  cd "$folder/packages"
  expect_equal packages "enginehost_${VERSION}_amd64.deb
libcul-dev_${VERSION}_amd64.deb
libcul1_${VERSION}_amd64.deb" "$(ls)"

  # What is needed of the C and C++ libraries depends on where this is built.
  fields() {
    local format='${Package} ${Version} ${Architecture} ${Section} ${Maintainer}\n'
    format+='${Description}\n${Depends}\n'
    dpkg-deb --showformat="$format" --show "$1"_*.deb | sed 's/ (>= [^)]*)//g'
  }
  local maintainer="Debugger Engine developers <engine@debugger.invalid>"
  expect_equal libcul1 "libcul1 $VERSION amd64 libs $maintainer
common utility library of the debugger engine
 Strings that carry their encoding, pools and lists, threads and locks, a
 trace facility, settings, modules, pipes and processes, for every process
 of the debugger.
 .
 This package holds the library and its configuration module.
libc6, libgcc-s1, libstdc++6" "$(fields libcul1)"
  expect_equal libcul-dev "libcul-dev $VERSION amd64 libdevel $maintainer
common utility library of the debugger engine (development files)
 The headers of the library, each one its own manual, what CMake and
 pkg-config find it by, and the compiler of message catalogs.
libcul1 (= $VERSION), libc6, libgcc-s1, libstdc++6" "$(fields libcul-dev)"
  expect_equal enginehost "enginehost $VERSION amd64 devel $maintainer
runs a program under the debugger engine
 Starts as every process of the debugger does, runs a program on a console
 of its own and ends with the program's status.
libcul1 (= $VERSION), libc6, libgcc-s1, libstdc++6" "$(fields enginehost)"
  # For the packages of programs that link the library.
  expect_equal shlibs "libcul 1 libcul1 (>= $VERSION)" "$(dpkg-deb --info libcul1_*.deb shlibs)"
}

EachPackageHoldsItsFiles() {
  make_packages packages
  # Mode, owner and name of whatever is no folder.
  contents() {
    dpkg-deb --contents "$folder/packages/$1"_*.deb | grep -v ^d |
      awk '{ print $1, $2, $6 $7 $8 }' | sort -k 3
  }
  local file="-rw-r--r-- root/root ./usr" link="lrwxrwxrwx root/root ./usr"
  local program="-rwxr-xr-x root/root ./usr"
  local lib=lib/$multiarch
  expect_equal libcul1 "$link/$lib/libcul.so.1->libcul.so.$VERSION
$file/$lib/libcul.so.$VERSION
$file/$lib/libwobnConfig.so" "$(contents libcul1)"
  expect_equal enginehost "$program/bin/enginehost
$file/$lib/libwobnhost.so
$file/share/man/man1/enginehost.1" "$(contents enginehost)"

  local configuration
  configuration=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$BUILD_FOLDER/CMakeCache.txt")
  install_and_move
  expect_equal libcul-dev "$program/bin/cul-message-compiler
$(headers_of "$prefix/include" | sed "s|^|$file/include/|")
$file/$lib/cmake/cul/CulMessageCatalog.cmake
$file/$lib/cmake/cul/culConfig.cmake
$file/$lib/cmake/cul/culConfigVersion.cmake
$file/$lib/cmake/cul/culTargets-${configuration,,}.cmake
$file/$lib/cmake/cul/culTargets.cmake
$link/$lib/libcul.so->libcul.so.1
$file/$lib/pkgconfig/cul.pc
$file/share/gdb/auto-load/usr/$lib/libcul.so.$VERSION-gdb.py
$file/share/man/man1/cul-message-compiler.1" "$(contents libcul-dev)"
}

PackagesAreInstalledUsedAndPurged() {
  make_packages packages
  # A root of its own, which knows of the packages that any Debian has. The scripts of packages
  # run outside of it, with a loader's cache that is not the machine's.
  local root=$folder/root
  mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$folder/bin"
  dpkg-query --status libc6 libgcc-s1 libstdc++6 >"$root/var/lib/dpkg/status"
  cat >"$folder/bin/ldconfig" <<END
#!/bin/sh
echo "\$DPKG_MAINTSCRIPT_PACKAGE \$DPKG_MAINTSCRIPT_NAME" >>"$folder/ldconfig"
END
  chmod +x "$folder/bin/ldconfig"
  dpkg_there() {
    HOME=$folder PATH=$folder/bin:$PATH:/usr/sbin:/sbin quietly dpkg --root="$root" \
      --log=/dev/null --force-not-root --force-script-chrootless "$@"
  }
  dpkg_there --install "$folder"/packages/*.deb
  expect_equal "scripts that call ldconfig" $'libcul1 postinst\nenginehost postinst' \
    "$(cat "$folder/ldconfig")"

  local status=0
  env -i "$root/usr/bin/enginehost" -- /bin/sh -c 'exit 7' || status=$?
  expect_equal status 7 $status
  expect_equal "the host in French" "enginehost: /no/such/program : introuvable" \
    "$(env -i LANG=fr_FR "$root/usr/bin/enginehost" -- /no/such/program 2>&1)"
  expect_equal "the library that the host loads" "$root/usr/lib/$multiarch/libcul.so.1" \
    "$(ldd "$root/usr/bin/enginehost" | awk '$1 == "libcul.so.1" { print $3 }' | xargs realpath -s)"
  quietly "$CMAKE" -S "$consumer" -B "$folder/build" -G Ninja -DCMAKE_PREFIX_PATH="$root/usr"
  quietly "$CMAKE" --build "$folder/build"
  expect_consumer_runs "$folder/build"

  rm "$folder/ldconfig"
  dpkg_there --purge enginehost libcul-dev libcul1
  expect_equal "scripts that call ldconfig" $'enginehost postrm\nlibcul1 postrm' \
    "$(cat "$folder/ldconfig")"
  expect_equal "what is left of the packages" "" \
    "$(find "$root" -path "$root/var" -prune -o -type f -print)"
}

[[ "${1-}" == [A-Z]* ]] || fail "usage: cases.sh case"
"$1"
