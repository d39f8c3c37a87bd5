#!/bin/sh
# Puts faults that the project once had back into a copy of the tree, one at a time, and has the simulator find each.
#   put_back.sh SOURCE_DIR BUILD_DIR [NAME...]    the patches of faults/ of those names, else all; 1 when one is not found
# The runs that are kept in tests/seeds come first, then seeds as they are drawn.
set -eu
source=$1
build=$2
shift 2
seeds=1000
days=30
jobs=${JOBS:-2}

faults=$source/tests/simulate/faults
[ $# -gt 0 ] || set -- $(cd "$faults" && ls *.patch | sed 's/\.patch$//')
tree=$build/tree
failed=0

rm -rf "$tree"
mkdir -p "$tree"
tar -C "$source" --exclude=./build --exclude=./.git -cf - . | tar -C "$tree" -xmf -
cmake -S "$tree" -B "$build/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1" >"$build/configure.log"
for name in "$@"; do
    patch -s -d "$tree" -p1 <"$faults/$name.patch"
    cmake --build "$build/build" --target simulate >"$build/build.log" 2>&1 || {
        cat "$build/build.log" >&2
        exit 1
    }
    patch -s -R -d "$tree" -p1 <"$faults/$name.patch"
    if "$build/build/simulate" --file "$source/tests/seeds" --seeds $seeds --days $days --jobs "$jobs" --first --quiet \
        >"$build/$name.log"; then
        echo "$name: NOT FOUND in $seeds seeds of $days days"
        failed=1
    else
        echo "$name: $(head -n 1 "$build/$name.log")"
    fi
done
exit $failed
