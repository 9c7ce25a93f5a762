#!/usr/bin/env bash
# Installs the build into a directory of its own, builds a project against the copy through CMake and
# through pkg-config, runs both, and compiles every installed header alone.
#   consumer_test.sh BUILD_DIRECTORY COMPILER
set -eu
build=$1
compiler=$2
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >"$work/install.log"
libdir=$(dirname "$(find "$work/prefix" -name libKVXMOM.so)")

echo "through CMake"
cmake -S "$here/consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$work/prefix" \
    -DCMAKE_CXX_COMPILER="$compiler" >"$work/configure.log" || { cat "$work/configure.log"; exit 1; }
cmake --build "$work/cmake" >"$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; }
"$work/cmake/consumer"

echo "through pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
read -r -a flags < <(pkg-config --cflags --libs kvxmom)
"$compiler" -std=c++20 "$here/consumer/main.cpp" -o "$work/consumer" "${flags[@]}" \
    -Wl,-rpath,"$libdir"
"$work/consumer"

echo "every installed program starts"
for program in rvd kvx modeld; do "$work/prefix/bin/$program" --version; done
"$work/prefix/bin/rva" -version

echo "every header alone"
include=$work/prefix/include/kvxmom
find "$include" -name '*.h' | sort >"$work/headers"
xargs -P "$(nproc)" -I {} "$compiler" -std=c++20 -Wall -Wextra -Werror -fsyntax-only \
    -I "$include" -include {} -x c++ /dev/null <"$work/headers"
wc -l <"$work/headers"
