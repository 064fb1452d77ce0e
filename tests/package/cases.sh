#!/usr/bin/env bash
# One test of what is installed and packaged, in a temporary folder of its own.
# usage: cases.sh case
# The environment names the tools CMAKE, CPACK, CXX and GDB, the folders SOURCE_FOLDER and
# BUILD_FOLDER, the VERSION, and PACKAGES, a folder for the packages: the case PackagesAreMade comes
# first, and the cases of packages look at what it has left there.
# shellcheck source=../support/cases.sh
. "$(dirname "$0")/../support/cases.sh"

consumer=$SOURCE_FOLDER/tests/package/consumer
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)

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

# build_with_pkg_config [compiler options...]: the consumer and its catalog, in $folder.
build_with_pkg_config() {
  export PKG_CONFIG_PATH="$prefix/lib/$multiarch/pkgconfig"
  local flags
  eval "flags=($(pkg-config --cflags --libs cul))"
  "$CXX" -std=c++20 "$@" "$consumer/main.cpp" -o "$folder/consumer" "${flags[@]}"
  "$prefix/bin/cul-message-compiler" -o "$folder/messages.cpp" \
    en_US="$consumer/messages/en_US.msg" de_DE="$consumer/messages/de_DE.msg"
  "$CXX" -std=c++20 -shared -fPIC "$folder/messages.cpp" -o "$folder/libwobnconsumer.so"
}

PkgConfigFindsAMovedTree() {
  install_and_move
  build_with_pkg_config
  expect_equal version "$VERSION" "$(pkg-config --modversion cul)"
  expect_consumer_runs "$folder" "$prefix/lib/$multiarch"
}

# A sanitizer in the program stands between the library and the loader.
TheModuleIsFoundInASanitizedProgram() {
  install_and_move
  for sanitizer in address thread; do
    build_with_pkg_config -fsanitize="$sanitizer"
    expect_consumer_runs "$folder" "$prefix/lib/$multiarch"
  done
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

# expect_no_folder_named tree: no file names a folder of the build, also not where its debug
# information is compressed.
expect_no_folder_named() {
  local file
  find "$1" -type f -print0 | while IFS= read -r -d '' file; do
    if readelf --file-header "$file" >/dev/null 2>&1; then
      objcopy --decompress-debug-sections "$file" 2>/dev/null
    elif [ "${file%.gz}" != "$file" ]; then
      gunzip "$file"
    fi
  done
  expect_equal "files that name a folder" "" \
    "$(grep -rlF -e "$SOURCE_FOLDER" -e "$BUILD_FOLDER" -e "$folder" "$1")"
}

NothingInstalledNamesAFolderOfTheBuild() {
  install_and_move
  # Only what is built to be given away has debug information that tells of no folder.
  case $(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$BUILD_FOLDER/CMakeCache.txt") in
    Rel*) ;;
    *) find "$prefix" -name '*.so*' -type f -exec strip {} + -o -path '*/bin/*' -exec strip {} + ;;
  esac
  expect_no_folder_named "$prefix"
}

NothingPackagedNamesAFolderOfTheBuild() {
  mkdir "$folder/unpacked"
  local package
  for package in "$PACKAGES"/*.deb; do
    dpkg-deb --raw-extract "$package" "$folder/unpacked/${package##*/}"
  done
  expect_no_folder_named "$folder/unpacked"
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

# make_packages folder: quickly, not small.
make_packages() {
  SOURCE_DATE_EPOCH=1700000000 DPKG_DEB_COMPRESSOR_LEVEL=0 \
    quietly "$CPACK" -B "$1" --config "$BUILD_FOLDER/CPackConfig.cmake"
  rm -rf "$1/_CPack_Packages"
}

PackagesAreMade() {
  rm -rf "$PACKAGES"
  make_packages "$PACKAGES"
}

# sums folder [pattern]: of the files in it, by their names.
sums() { (cd "$1" && find . -type f -name "${2-*}" | sort | xargs -d '\n' sha256sum); }

PackagesOfOneBuildAreTheSameBytes() {
  # As another user would make them, later.
  (umask 077 && TZ=Asia/Tokyo LC_ALL=C.UTF-8 make_packages "$folder/in another folder")
  expect_equal packages "$(sums "$PACKAGES" '*.deb')" "$(sums "$folder/in another folder" '*.deb')"
}

# The short form of script/reproduce: of the sources in two folders, what takes little time.
TwoBuildsInTwoFoldersAreTheSameBytes() {
  # build_copy sources build: in two folders of these names.
  build_copy() {
    local copy="$folder/$1"
    mkdir -p "$copy"
    cp -r "$SOURCE_FOLDER"/{CMakeLists.txt,README.md,Engine,cmake,docs,programs} "$copy"
    export SOURCE_DATE_EPOCH=1700000000 CMAKE_CXX_COMPILER_LAUNCHER="" CCACHE_DISABLE=1
    quietly "$CMAKE" -S "$copy" -B "$folder/$2" -G Ninja -DCMAKE_CXX_COMPILER="$CXX" \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCUL_TESTS=OFF
    quietly "$CMAKE" --build "$folder/$2" --target wobnConfig gdb_types
  }
  build_copy once once/build
  build_copy "and/once again" "built elsewhere"
  expect_equal files "$(sums "$folder/once/build/lib")" "$(sums "$folder/built elsewhere/lib")"
  expect_no_folder_named "$folder/once/build/lib"
}

# product_data folder: the time that a build of the sources in a folder has.
product_data() {
  quietly env -u SOURCE_DATE_EPOCH "$CMAKE" -DVERSION=1 -DOUTPUT="$folder/data.cpp" \
    -P "$1/cmake/ProductData.cmake"
  sed -n 's/^ *"\([0-9]\{14\}\)",$/\1/p' "$folder/data.cpp"
}

TheTimeOfABuildIsThatOfItsCommit() {
  local tree=$folder/tree now
  mkdir -p "$tree/cmake"
  cp "$SOURCE_FOLDER"/cmake/{ProductData,SourceDate}.cmake "$tree/cmake"
  export HOME=$folder GIT_CONFIG_NOSYSTEM=1 GIT_COMMITTER_DATE="1700000000 +0900"
  now=$(date -u +%Y%m%d%H%M%S)
  [ "$(product_data "$tree")" -ge "$now" ] || fail "the time of no commit"
  quietly git -C "$tree" init
  quietly git -C "$tree" add .
  quietly git -C "$tree" -c user.name=x -c user.email=x@y.invalid commit -m x
  expect_equal "time of a commit" 20231114221320 "$(product_data "$tree")"
  expect_equal "the time that is given" 20010909014640 \
    "$(SOURCE_DATE_EPOCH=1000000000 && export SOURCE_DATE_EPOCH &&
      "$CMAKE" -DVERSION=1 -DOUTPUT="$folder/data.cpp" -P "$tree/cmake/ProductData.cmake" &&
      sed -n 's/^ *"\([0-9]\{14\}\)",$/\1/p' "$folder/data.cpp")"
  # What is no commit has the time at which it is built.
  echo >>"$tree/cmake/SourceDate.cmake"
  [ "$(product_data "$tree")" -ge "$now" ] || fail "the time of a commit that was changed"
}

LintianMissesTheLicenceOnly() {
  # It complains about being root, in words of its own.
  TMPDIR=$folder lintian --allow-root "$PACKAGES"/*.deb >"$folder/found" ||
    [ -s "$folder/found" ] || fail "lintian does not run"
  expect_equal "what lintian says" "E: enginehost: no-copyright-file
E: libcul-dev: no-copyright-file
E: libcul1: no-copyright-file" "$(sort "$folder/found")"
}

ThePackagesAreNamedDescribedAndConnected() {
  cd "$PACKAGES"
  expect_equal packages "enginehost-dbgsym_${VERSION}_amd64.deb
enginehost_${VERSION}_amd64.deb
libcul-dev-dbgsym_${VERSION}_amd64.deb
libcul-dev_${VERSION}_amd64.deb
libcul1-dbgsym_${VERSION}_amd64.deb
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
 of its own and ends with the program's status. Beside it enginetrace
 shows traces in the order of their lines.
libcul1 (= $VERSION), libc6, libgcc-s1, libre2-9, libstdc++6" "$(fields enginehost)"
  expect_equal libcul1-dbgsym "libcul1-dbgsym $VERSION amd64 debug $maintainer
debug symbols for libcul1
libcul1 (= $VERSION)" "$(fields libcul1-dbgsym)"
  # For the packages of programs that link the library.
  expect_equal shlibs "libcul 1 libcul1 (>= $VERSION)" "$(dpkg-deb --info libcul1_*.deb shlibs)"
  expect_equal "the last line of the changelog" \
    " -- $maintainer  Tue, 14 Nov 2023 22:13:20 +0000" \
    "$(dpkg-deb --fsys-tarfile libcul1_*.deb | tar -xO ./usr/share/doc/libcul1/changelog.gz |
      zcat | tail -n 1)"
  expect_equal triggers "activate-noawait ldconfig" "$(dpkg-deb --info libcul1_*.deb triggers)"
}

EachPackageHoldsItsFiles() {
  # Mode, owner and name of whatever is no folder.
  contents() {
    dpkg-deb --contents "$PACKAGES/$1"_*.deb | grep -v ^d |
      awk '{ print $1, $2, $6 $7 $8 }' | sort -k 3
  }
  local file="-rw-r--r-- root/root ./usr" link="lrwxrwxrwx root/root ./usr"
  local program="-rwxr-xr-x root/root ./usr"
  local lib=lib/$multiarch
  expect_equal libcul1 "$file/$lib/cul/libwobnConfig.so
$link/$lib/libcul.so.1->libcul.so.$VERSION
$file/$lib/libcul.so.$VERSION
$file/share/doc/libcul1/changelog.gz" "$(contents libcul1)"
  expect_equal enginehost "${link%usr}etc/lnav/formats/enginetrace->/usr/share/enginetrace/lnav
$program/bin/enginehost
$program/bin/enginetrace
$file/$lib/cul/libwobnhost.so
$file/$lib/cul/libwobntrace.so
$file/share/bash-completion/completions/enginehost
$file/share/bash-completion/completions/enginetrace
$file/share/doc/enginehost/changelog.gz
$file/share/enginetrace/lnav/enginetrace.json
$file/share/man/man1/enginehost.1.gz
$file/share/man/man1/enginetrace.1.gz" "$(contents enginehost)"

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
$file/$lib/cul/libcul-types.o
$link/$lib/libcul.so->libcul.so.1
$file/$lib/pkgconfig/cul.pc
$file/share/bash-completion/completions/cul-message-compiler
$file/share/doc/libcul-dev/changelog.gz
$file/share/gdb/auto-load/usr/$lib/libcul.so.$VERSION-gdb.py
$file/share/man/man1/cul-message-compiler.1.gz" "$(contents libcul-dev)"
}

PackagesAreInstalledUsedAndPurged() {
  # A root of its own, which knows of the packages that any Debian has, but runs no triggers.
  local root=$folder/root
  mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
  dpkg-query --status libc6 libgcc-s1 libre2-9 libstdc++6 >"$root/var/lib/dpkg/status"
  dpkg_there() {
    HOME=$folder PATH=$PATH:/usr/sbin:/sbin quietly dpkg --root="$root" --log=/dev/null \
      --force-not-root --force-script-chrootless "$@"
  }
  dpkg_there --install "$PACKAGES"/*.deb

  local status=0
  env -i "$root/usr/bin/enginehost" -- /bin/sh -c 'exit 7' || status=$?
  expect_equal status 7 $status
  expect_equal "the host in French" "enginehost: /no/such/program : introuvable" \
    "$(env -i LANG=fr_FR "$root/usr/bin/enginehost" -- /no/such/program 2>&1)"
  expect_equal "the library that the host loads" "$root/usr/lib/$multiarch/libcul.so.1" \
    "$(ldd "$root/usr/bin/enginehost" | awk '$1 == "libcul.so.1" { print $3 }' | xargs realpath -s)"
  quietly "$CMAKE" -S "$consumer" -B "$folder/build" -G Ninja -DCMAKE_PREFIX_PATH="$root/usr" \
    -DCMAKE_BUILD_TYPE=Debug
  quietly "$CMAKE" --build "$folder/build"
  expect_consumer_runs "$folder/build"
  # The library is stripped, and gdb is not to take debug symbols that this machine may have.
  expect_equal "a string in gdb" '$1 = "λόγος"' "$(cd "$folder/build" &&
    env -i LC_ALL=C.UTF-8 LD_LIBRARY_PATH=. "$GDB" -nx -batch -ex "set startup-with-shell off" \
      -ex "set debuginfod enabled off" -ex "set debug-file-directory /nowhere" \
      -ex "break printf" -ex run -ex up \
      -ex "source $root/usr/share/gdb/auto-load/usr/lib/$multiarch/libcul.so.$VERSION-gdb.py" \
      -ex "print word" ./consumer 2>&1 | tail -n 1)"

  dpkg_there --purge enginehost libcul-dev libcul1 {enginehost,libcul-dev,libcul1}-dbgsym
  expect_equal "what is left of the packages" "" \
    "$(find "$root" -path "$root/var" -prune -o -type f -print)"
}

"$1"
