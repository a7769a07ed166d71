#!/usr/bin/env bash
# usage: packaging/check-exports.sh BUILD_DIR
#
# Fails unless the shared library exports exactly the classes that the public headers mark with KYTFER_EXPORT, and
# is, stripped, at most 256 KiB large. What it exports is said in cmake/libkytfer.map.
set -euo pipefail

SOURCE=$(dirname "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")")
LIMIT=$((256 * 1024))
[ $# -eq 1 ] || { echo "usage: packaging/check-exports.sh BUILD_DIR" >&2; exit 2; }
LIBRARY=$1/src/libkytfer.so
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
failed=0

# A symbol belongs to the class before its first "::"; a type's own symbols are told apart by what stands before.
nm -DC --defined-only "$LIBRARY" | cut -d' ' -f3- |
    sed -E 's/^(typeinfo for|typeinfo name for|vtable for|VTT for) ([A-Za-z0-9_]+)$/\2::/' >"$WORK/symbols"
[ -s "$WORK/symbols" ] || { echo "check-exports: $LIBRARY exports nothing" >&2; exit 1; }
sed -nE 's/^([A-Za-z0-9_]+)::.*/\1/p' "$WORK/symbols" | sort -u >"$WORK/exported"
(cd "$SOURCE" && xargs sed -nE 's/^class KYTFER_EXPORT ([A-Za-z0-9_]+).*/\1/p') \
    <"$SOURCE/cmake/public-headers.txt" | sort -u >"$WORK/documented"

while read -r name; do
    echo "check-exports: exported, but no class of the public headers:" >&2
    grep "^$name::" "$WORK/symbols" | sed 's/^/    /' >&2
    failed=1
done < <(comm -23 "$WORK/exported" "$WORK/documented")
if grep -vE '^[A-Za-z0-9_]+::' "$WORK/symbols" | sed 's/^/    /' >"$WORK/others" && [ -s "$WORK/others" ]; then
    echo "check-exports: exported, but part of no class:" >&2
    cat "$WORK/others" >&2
    failed=1
fi
while read -r name; do
    echo "check-exports: $name is marked KYTFER_EXPORT and not exported; name it in cmake/libkytfer.map" >&2
    failed=1
done < <(comm -13 "$WORK/exported" "$WORK/documented")

strip -o "$WORK/stripped" "$LIBRARY"
size=$(stat -c %s "$WORK/stripped")
if [ "$size" -gt "$LIMIT" ]; then
    echo "check-exports: stripped, the library has $size bytes; the limit is $LIMIT" >&2
    failed=1
fi
[ "$failed" -eq 0 ] || exit 1
echo "exported: $(wc -l <"$WORK/symbols") symbols of $(paste -sd' ' "$WORK/exported")"
echo "stripped: $size of at most $LIMIT bytes"
