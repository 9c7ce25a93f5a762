#!/usr/bin/env bash
# Installs the build into a directory of its own and checks the copy as its users meet it: a project
# built through CMake and through pkg-config, the programs, the headers, and a tree that was moved.
#   consumer_test.sh BUILD_DIRECTORY COMPILER
set -eu
build=$1
compiler=$2
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset KVX_HOME VEK_HOME

cmake --install "$build" --prefix "$work/prefix" >"$work/install.log"
libdir=$(dirname "$(find "$work/prefix" -name libKVXMOM.so)")

# What only the libraries need is not there for their users.
mkdir "$work/absent"
for header in zlib.h libdeflate.h uv.h; do echo "#error not for users" >"$work/absent/$header"; done
export CPLUS_INCLUDE_PATH=$work/absent

echo "through CMake"
cmake -S "$here/consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$work/prefix" \
    -DCMAKE_CXX_COMPILER="$compiler" >"$work/configure.log" || { cat "$work/configure.log"; exit 1; }
cmake --build "$work/cmake" >"$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; }
[ "$("$work/cmake/consumer")" = "home: $work/prefix" ]

echo "through pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
read -r -a flags < <(pkg-config --cflags --libs kvxmom)
"$compiler" -std=c++20 "$here/consumer/main.cpp" -o "$work/consumer" "${flags[@]}"
[ "$(LD_LIBRARY_PATH=$libdir "$work/consumer")" = "home: $work/prefix" ]

echo "from C"
cc -std=c99 -Wall -Wextra -Werror -pedantic "$here/../kvx/CProgram.c" -o "$work/in_c" "${flags[@]}"
LD_LIBRARY_PATH=$libdir "$work/in_c" null

echo "every installed program starts, and the units start them"
for program in rvd rvbridge kvx modeld; do "$work/prefix/bin/$program" --version; done
"$work/prefix/bin/rva" -version
for program in kvx modeld rva rvbridge rvd; do
    for file in man/man1/$program.1 bash-completion/completions/$program \
        fish/vendor_completions.d/$program.fish zsh/site-functions/_$program; do
        [ -s "$work/prefix/share/$file" ]
    done
done
for program in rvd rvbridge rva; do
    grep -q "^ExecStart=\"$work/prefix/bin/$program\" " \
        "$work/prefix/lib/systemd/system/$program.service"
done
for example in rvbridge-nats.conf rvbridge.default; do
    [ -s "$work/prefix/share/doc/KVXMOM/examples/$example" ]
done
for page in http.md openapi.json; do cmp "$here/../../docs/$page" "$work/prefix/share/doc/rva/$page"; done
promtool test rules "$work/prefix/share/kvxmom/prometheus/kvxmom.tests.yml"
[ -s "$work/prefix/share/kvxmom/grafana/kvxmom.json" ]

echo "every header alone"
include=$work/prefix/include/kvxmom
(cd "$include" && find . -name '*.h' -printf '%P\n' | sort) >"$work/headers"
xargs -P "$(nproc)" -I {} "$compiler" -std=c++20 -Wall -Wextra -Wpedantic -Werror -fsyntax-only \
    -I "$include" -include {} -x c++ /dev/null <"$work/headers"
wc -l <"$work/headers"

echo "every function that a header declares is exported"
"$here/hidden_functions.pl" "$include" "$libdir" \
    "$build"/lib/static/libkvx_{platform,foundation,rv_*,mom,kvx}.a

echo "a tree that was moved"
mv "$work/prefix" "$work/elsewhere"
[ "$(LD_LIBRARY_PATH=${libdir/prefix/elsewhere} "$work/consumer")" = "home: $work/elsewhere" ]
