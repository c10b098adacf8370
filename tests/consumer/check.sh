#!/bin/bash
# usage: check.sh CMAKE BUILD_DIRECTORY COMPILER
#
# Installs a finished build into a temporary prefix, moves that prefix, and builds and runs the consumer against it in both
# ways in which a project can find the libraries.
set -euo pipefail

cmake=$1
build=$2
compiler=$3
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$cmake" --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/prefix"

echo "find_package(veldar)"
examples=$(cd "$here/../../examples" && pwd)
"$cmake" -S "$here" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_CXX_COMPILER="$compiler" \
    -DEXAMPLES="$examples" >/dev/null
"$cmake" --build "$work/build" >/dev/null
"$work/build/consumer" "$work/index1"
"$work/build/embed" "$work/index"

echo "pkg-config veldar"
pc=$(find "$work/prefix" -name veldar.pc)
flags=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --cflags --libs veldar)
# shellcheck disable=SC2086 # the flags are words
"$compiler" -std=c++20 "$here/main.cc" $flags -o "$work/consumer"
"$work/consumer" "$work/index2"
