#!/bin/sh
# The plug-in exports the names that others rely on, and no others, and needs nothing but the platform and libc:
# symbols_test.sh zephyrin.so SOURCE_DIR [LOADER]
# With the loader of a libc whose names bear no versions: it tells what it lacks without the platform.
set -eu

# The instrumentation of a sanitizer adds names of its own.
own='^(__asan|__ubsan|__sanitizer|__odr_asan|_ITM_|__gmon_start__|__cxa_finalize|_init$|_fini$)'

names="$2/tests/exported_names.txt"
exported=$(nm -D --defined-only "$1" | awk '{ print $NF }' | sed 's/@.*//' | grep -Ev "$own" | LC_ALL=C sort)
if [ "$exported" != "$(cat "$names")" ]; then
    echo "what it exports (>) differs from $names (<):"
    echo "$exported" | diff "$names" - || true
    exit 1
fi

platform=$(cat "$2"/platform/*.h)
if [ -n "${3:-}" ]; then
    foreign=$("$3" --list "$1" 2>&1 | sed -n 's/^Error relocating .*: \(.*\): symbol not found$/\1/p')
else
    foreign=$(nm -D --undefined-only "$1" | awk '{ print $NF }' | grep -v '@GLIBC' | sed 's/@.*//' | grep -Ev "$own")
fi
[ -n "$foreign" ] || { echo "it needs nothing of the platform, which cannot be"; exit 1; }
for name in $foreign; do
    echo "$platform" | grep -q "\b$name\b" || { echo "$name is neither the platform's nor libc's"; exit 1; }
done
for library in $(readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
    case "$library" in
    libc.so.6 | libc.so | libasan.so.* | libubsan.so.*) ;;
    *)
        echo "it needs $library"
        exit 1
        ;;
    esac
done
