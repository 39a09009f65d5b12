#!/usr/bin/env bash
# Installs the build into a private prefix inside the build tree, checks the
# installed files, then builds and runs a consumer through find_package and
# one through pkg-config. Cross builds use the toolchain file and run the
# programs under the emulator.
# Usage: install_test.sh CMAKE GENERATOR MAKE_PROGRAM CC BUILD_DIR SOURCE_DIR VERSION LIBDIR
#                        CLI(0|1) TOOLCHAIN_FILE|"" [EMULATOR...]
set -euo pipefail
cmake=$1 generator=$2 make_program=$3 cc=$4 build=$5 src=$6 version=$7 libdir=$8 cli=$9 toolchain=${10}
shift 10
emulator=("$@")

fail() { echo "install test: $*" >&2; exit 1; }

work=$build/install-test
prefix=$work/prefix
rm -rf "$work"
mkdir -p "$work"
"$cmake" --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail "install failed"; }

# The installed files.
diff <(cd "$src/include/woodshed" && ls -- *.h) <(cd "$prefix/include/woodshed" && ls) \
  || fail "installed headers differ from include/woodshed"
for f in woodshedConfig.cmake woodshedConfigVersion.cmake woodshedTargets.cmake; do
  [ -f "$prefix/$libdir/cmake/woodshed/$f" ] || fail "missing lib/cmake/woodshed/$f"
done
[ -f "$prefix/$libdir/pkgconfig/woodshed.pc" ] || fail "missing lib/pkgconfig/woodshed.pc"
if grep -rlF "$src" "$prefix/$libdir/cmake" "$prefix/$libdir/pkgconfig"; then
  fail "source or build tree paths leak into the installed package files"
fi
extra=$(find "$prefix" \( -iname '*gtest*' -o -iname '*gmock*' -o -name 'test_*' -o -name 'bench_*' \
        -o -name 'fuzz_*' -o -name 'miniaudio*' \) -print)
[ -z "$extra" ] || fail "test or build-only files installed: $extra"

if [ -n "$toolchain" ]; then
  exe=.exe
  [ -f "$prefix/bin/woodshed.dll" ] || fail "missing bin/woodshed.dll"
  [ -f "$prefix/$libdir/libwoodshed.dll.a" ] || fail "missing import library lib/libwoodshed.dll.a"
  [ -f "$prefix/$libdir/woodshed.def" ] || fail "missing module definition lib/woodshed.def"
else
  exe=
  major=${version%%.*}
  [ "$(readlink "$prefix/$libdir/libwoodshed.so")" = "libwoodshed.so.$major" ] || fail "libwoodshed.so link"
  [ "$(readlink "$prefix/$libdir/libwoodshed.so.$major")" = "libwoodshed.so.$version" ] || fail "libwoodshed.so.$major link"
  [ -f "$prefix/$libdir/libwoodshed.so.$version" ] && [ ! -L "$prefix/$libdir/libwoodshed.so.$version" ] \
    || fail "libwoodshed.so.$version is not the library file"
fi

if [ "$cli" = 1 ]; then
  # Without a library path: the installed program must find the installed library itself.
  env -u LD_LIBRARY_PATH "${emulator[@]}" "$prefix/bin/woodshed$exe" --help >/dev/null \
    || fail "installed CLI does not run"
  out=$(env -u LD_LIBRARY_PATH "${emulator[@]}" "$prefix/bin/woodshed$exe" --version | tr -d '\r')
  [[ $out == "woodshed $version "* ]] || fail "installed CLI reports '$out'"
fi

# Only the private prefix is searched, as a cross build would have it.
pc() { PKG_CONFIG_LIBDIR="$prefix/$libdir/pkgconfig" PKG_CONFIG_PATH="" pkg-config "$@"; }
[ "$(pc --modversion woodshed)" = "$version" ] || fail "pkg-config version $(pc --modversion woodshed)"

# Consumer through the CMake package.
config=(-G "$generator" -DCMAKE_MAKE_PROGRAM="$make_program" -DCMAKE_BUILD_TYPE=Release
        -DCMAKE_PREFIX_PATH="$prefix" -DWOODSHED_WANTED_VERSION="$version")
if [ -n "$toolchain" ]; then
  # The toolchain confines package searches to its root; point at the package itself.
  config+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain" -Dwoodshed_DIR="$prefix/$libdir/cmake/woodshed")
else
  config+=(-DCMAKE_C_COMPILER="$cc")
fi
"$cmake" -S "$src/tests/install/consumer" -B "$work/cmake" "${config[@]}" >"$work/cmake.log" 2>&1 \
  && "$cmake" --build "$work/cmake" >>"$work/cmake.log" 2>&1 \
  || { cat "$work/cmake.log"; fail "find_package consumer did not build"; }
env -u LD_LIBRARY_PATH "${emulator[@]}" "$work/cmake/consumer$exe" || fail "find_package consumer failed"

# Consumer through pkg-config.
mkdir -p "$work/pc"
# shellcheck disable=SC2046
"$cc" -std=c11 -Wall -Wextra -Werror "$src/tests/install/consumer/consumer.c" \
  $(pc --cflags --libs woodshed) -o "$work/pc/consumer$exe" || fail "pkg-config consumer did not build"
if [ -n "$toolchain" ]; then
  cp "$prefix/bin/woodshed.dll" "$work/pc/"
  "${emulator[@]}" "$work/pc/consumer$exe" || fail "pkg-config consumer failed"
else
  LD_LIBRARY_PATH="$(pc --variable=libdir woodshed)" "$work/pc/consumer" || fail "pkg-config consumer failed"
fi
echo "install test: passed"
