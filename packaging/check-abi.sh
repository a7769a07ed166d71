#!/usr/bin/env bash
# usage: packaging/check-abi.sh [--update] BUILD_DIR
#
# Compares the binary interface of BUILD_DIR's shared library with the recorded one, packaging/abi/libkytfer.abi,
# and fails on any difference; --update records it anew. The library must have been built by g++ with debug
# information, and for x86_64: the record is of that architecture, and elsewhere there is nothing to compare with.
set -euo pipefail

SOURCE=$(dirname "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")")
RECORD=$SOURCE/packaging/abi/libkytfer.abi

die() {
    echo "check-abi: $1" >&2
    exit "${2:-1}"
}

update=no
if [ "${1:-}" = --update ]; then
    update=yes
    shift
fi
[ $# -eq 1 ] || die "usage: packaging/check-abi.sh [--update] BUILD_DIR" 2
LIBRARY=$1/src/libkytfer.so
[ -e "$LIBRARY" ] || die "there is no $LIBRARY; build kytfer_shared first" 2
if [[ $(readelf -h "$LIBRARY") != *X86-64* ]]; then
    [ "$update" = no ] || die "the record is of x86_64; $LIBRARY is not" 2
    echo "check-abi: $LIBRARY is not for x86_64, the architecture of the record; nothing compared"
    exit 0
fi
[[ $(readelf -p .comment "$LIBRARY") != *clang* ]] || die "$LIBRARY was not built by g++" 2
[[ $(readelf -S --wide "$LIBRARY") == *.debug_info* ]] || die "$LIBRARY has no debug information" 2

# Types that no public header defines are private to the library.
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
while read -r header; do
    cp "$SOURCE/$header" "$WORK/"
done <"$SOURCE/cmake/public-headers.txt"

# Without anything that differs from one machine or folder to another.
abidw --headers-dir "$WORK" --drop-private-types --exported-interfaces-only --drop-undefined-syms \
    --no-corpus-path --no-comp-dir-path --no-show-locs --no-parameter-names --no-write-default-sizes \
    --out-file "$WORK/all.abi" "$LIBRARY"
sed -E "s/(<abi-instr [^>]*)path='[^']*\/src\//\1path='src\//" "$WORK/all.abi" >"$WORK/new.abi"

if [ "$update" = yes ]; then
    cp "$WORK/new.abi" "$RECORD"
    echo "recorded: $RECORD"
elif abidiff --harmless --no-show-locs "$RECORD" "$WORK/new.abi" >"$WORK/difference" 2>&1; then
    echo "the binary interface is as recorded"
else
    cat "$WORK/difference" >&2
    die "the binary interface is not the recorded one. If that is intended, let CHANGELOG.md say so, see in
src/CMakeLists.txt whether the SONAME has to change, and run: packaging/check-abi.sh --update $1"
fi
