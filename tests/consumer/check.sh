#!/bin/bash
# usage: check.sh CMAKE BUILD_DIRECTORY COMPILER
#
# Installs a finished build into a temporary prefix, moves that prefix, compiles every installed header alone, and builds
# and runs the consumer in the ways in which a project can find the libraries.
set -euo pipefail

cmake=$1
build=$2
compiler=$3
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

configure() { # BUILD_DIRECTORY ARGUMENT...
    "$cmake" -S "$here" -B "$@" -DCMAKE_CXX_COMPILER="$compiler" -DEXAMPLES="$root/examples" >/dev/null
}

"$cmake" --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/prefix"

echo "every header alone"
include=$work/prefix/include/veldar
headers=$(cd "$include" && find . -name '*.h')
[[ $headers == *st.h* ]]
for header in $headers; do
    "$compiler" -std=c++20 -fsyntax-only -Wall -Wextra -Werror -I"$include" -include "$header" -x c++ /dev/null
    told=$(LC_ALL=C "$compiler" -std=c++17 -fsyntax-only -I"$include" -include "$header" -x c++ /dev/null 2>&1) &&
        echo "$header: compiles as C++17" && exit 1
    [[ $told == *"veldar needs C++20"* ]] || { echo "$header: does not ask for C++20"; exit 1; }
done

echo "find_package(veldar)"
configure "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix"
"$cmake" --build "$work/build" >/dev/null
"$work/build/consumer" "$work/index1"
"$work/build/embed" "$work/index"

echo "pkg-config veldar"
pc=$(find "$work/prefix" -name veldar.pc)
flags=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --cflags --libs veldar)
# shellcheck disable=SC2086 # the flags are words
"$compiler" "$here/main.cc" $flags -o "$work/consumer"
"$work/consumer" "$work/index2"

if [ -e "$work/prefix/include/veldar.h" ]; then
    echo "pkg-config libveldar, in C"
    export PKG_CONFIG_PATH
    PKG_CONFIG_PATH=$(dirname "$pc")
    # shellcheck disable=SC2046 # the flags are words
    cc -std=c11 -pedantic -Wall -Wextra -Werror "$root/examples/put_events.c" $(pkg-config --cflags --libs libveldar) \
        -Wl,-rpath,"$(pkg-config --variable=libdir libveldar)" -o "$work/put_events"
    "$work/put_events" "$work/index3" | grep -qx '50 errors'
fi

package=$(find "$work/prefix" -type d -path '*/dist-packages/veldar')
if [ -n "$package" ]; then
    echo "import veldar"
    PYTHONPATH=${package%/veldar} PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 -c '
import sys, veldar
assert veldar.__file__.startswith(sys.argv[1]) and veldar.open(sys.argv[2]).count("level=error") == 100' \
        "$package" "$work/index3"
fi

echo "add_subdirectory(veldar)" # without compiling the engine once more
configure "$work/part" -DVELDAR_SOURCE="$root" -DCMAKE_OPTIMIZE_DEPENDENCIES=ON
"$cmake" --build "$work/part" --target zero consumer_object >/dev/null
