#!/usr/bin/env bash
# Builds the consumer against the VelmarMcast installed under PREFIX (/usr for the Debian
# package) in a scratch directory, and runs it with no plug-in path set, as an installed
# program runs. Exit status: the consumer's.
set -euo pipefail
[[ $# -eq 1 ]] || { echo "usage: $0 PREFIX" >&2; exit 2; }
prefix=$(readlink -f "$1")
[[ -d $prefix ]] || { echo "$0: $1: no such directory" >&2; exit 2; }
here=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
build=$(mktemp -d "${TMPDIR:-/tmp}/velmar-consumer.XXXXXX")
trap 'rm -rf "$build"' EXIT

cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix"
# The package must come from PREFIX, not from another installation found on the way.
found=$(readlink -f "$(sed -n 's/^VelmarMcast_DIR:PATH=//p' "$build/CMakeCache.txt")")
[[ $found == "$prefix"/* ]] || { echo "$0: VelmarMcast found in $found, not under $prefix" >&2; exit 1; }
cmake --build "$build" -j1
env -u VELMAR_PLUGIN_PATH "$build/remap_commit"
