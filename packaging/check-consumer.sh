#!/usr/bin/env bash
# usage: packaging/check-consumer.sh PREFIX_OR_DEB_DIR
#
# Builds examples/consumer outside of the tree against the installed library - below PREFIX, or in the packages of
# DEB_DIR, which are only unpacked - in four ways: pkg-config and CMake, each shared and static. Runs each in a
# sandbox, and checks its output and the libraries that it loads. Compiles each installed header alone. Checks what
# the shared library exports, and its size, which needs an optimised build. Takes about fifteen seconds.
set -euo pipefail

SOURCE=$(dirname "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")")
EXPECTED='/var/local/tal/pldserver/3/tferFiles/event.log: 20480 bytes, 100%, as on the device'

die() {
    echo "check-consumer: $*" >&2
    exit 1
}

# unpack DEB_DIR: unpacks the library's packages, and points pkg-config and CMake to them
unpack() {
    local deb
    for deb in "$1"/libkytfer*.deb; do
        [[ $deb == *-dbgsym_* ]] || dpkg-deb -x "$deb" "$WORK/root"
    done
    PREFIX=$WORK/root/usr
    # By default, pkg-config omits the flags for folders that compilers search anyway, such as /usr/include.
    export PKG_CONFIG_SYSROOT_DIR=$WORK/root PKG_CONFIG_ALLOW_SYSTEM_CFLAGS=1 PKG_CONFIG_ALLOW_SYSTEM_LIBS=1
}

# build_and_run BUILD_SYSTEM LINKAGE: prints nothing on success
build_and_run() {
    local folder=$WORK/$1-$2 program options=() status=0 loaded
    cp -r "$SOURCE/examples/consumer" "$folder"
    cd "$folder"
    if [ "$1" = make ]; then
        [ "$2" = shared ] || options+=(STATIC=1)
        make "CXX=g++" "CXXFLAGS=-O2 -Wall -Wextra -Wpedantic -Werror" "${options[@]}" >build.log 2>&1 || status=$?
        program=./consumer
    else
        [ "$2" = shared ] || options+=(-DSTATIC=ON)
        options+=(-DCMAKE_CXX_COMPILER=g++ "-DCMAKE_PREFIX_PATH=$PREFIX")
        { cmake -B build "${options[@]}" && cmake --build build; } >build.log 2>&1 || status=$?
        program=build/consumer
        grep -qx "kytfer_DIR:PATH=$LIBDIR/cmake/kytfer" build/CMakeCache.txt || status=1
    fi
    [ "$status" -eq 0 ] || { cat build.log; return 1; }

    # Which libraries the program requests, and where the loader finds them.
    loaded=$(readelf -d "$program" | sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p')
    if [ "$2" = shared ]; then
        grep -qx "$SONAME" <<<"$loaded" || { echo "does not load $SONAME"; return 1; }
        loaded=$(LD_LIBRARY_PATH=$LIBDIR ldd "$program")
        [[ $loaded == *"$SONAME => $LIBDIR/$SONAME "* ]] || { echo "loads another $SONAME: $loaded"; return 1; }
    elif grep kytfer <<<"$loaded"; then
        echo "is linked statically but loads the library"
        return 1
    fi
    [ "$2" = static ] || export LD_LIBRARY_PATH=$LIBDIR
    KY_LOG_LEVEL=3 "$SOURCE/tests/sandbox.sh" "$program" >output 2>errors || status=$?
    if [ "$status" -ne 0 ] || ! grep -qxF "$EXPECTED" output || ! grep -q '"TFER_STATUS_COMPLETE"' output ||
        [ -s errors ]; then
        echo "ended with status $status and said:"
        cat output errors
        return 1
    fi
}

# check_headers: each compiles alone, with the installed headers only
check_headers() {
    local header count=0
    while read -r header; do
        g++ -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only "-I$INCLUDE" -x c++ -include "$header" \
            /dev/null || return 1
        count=$((count + 1))
    done < <(find "$INCLUDE" -name '*.h')
    [ "$count" -ge 20 ] || { echo "only $count headers are installed"; return 1; }
}

# check_exports: the library exports exactly the marked classes, and is small
check_exports() {
    local library=$LIBDIR/$SONAME limit=$((256 * 1024)) size
    grep -rhoP '^class KYTFER_EXPORT \K\w+' "$INCLUDE" | sort -u >"$WORK/marked"
    nm -DC --defined-only "$library" | sed -E 's/^[^ ]+ . //; s/^(vtable|typeinfo|typeinfo name) for //; s/::.*//' |
        sort -u | diff -u --label "marked KYTFER_EXPORT" --label exported "$WORK/marked" - || return 1
    strip -o "$WORK/stripped" "$library" && size=$(stat -c %s "$WORK/stripped")
    [ "$size" -le "$limit" ] || { echo "the stripped library has $size bytes, more than $limit"; return 1; }
}

[ $# -eq 1 ] || { echo "usage: packaging/check-consumer.sh PREFIX_OR_DEB_DIR" >&2; exit 2; }
PREFIX=$(readlink -f "$1")
WORK=$(mktemp -d /tmp/kytfer-consumer.XXXXXX)  # neither in the tree nor in /var/tmp, which the sandbox hides
trap 'rm -rf "$WORK"' EXIT
if compgen -G "$PREFIX/*.deb" >/dev/null; then unpack "$PREFIX"; fi
LIBDIR=$(find "$PREFIX" -name kytfer.pc -printf '%h' -quit)
[ -n "$LIBDIR" ] || die "there is no kytfer.pc below $1"
LIBDIR=${LIBDIR%/pkgconfig}
INCLUDE=$PREFIX/include/kytfer
SONAME=$(readelf -d "$LIBDIR/libkytfer.so" | sed -nE 's/.*\(SONAME\).*\[(.*)\]/\1/p')
[ "$SONAME" = libkytfer.so.0.1 ] || die "the library's name is $SONAME"
export PKG_CONFIG_PATH=$LIBDIR/pkgconfig
flags=$(pkg-config --cflags kytfer)
[[ " $flags " == *" -I$INCLUDE "* ]] || die "pkg-config names other headers: $flags"

# All at the same time; the output is shown on failure only.
declare -A pids
for linkage in shared static; do
    for builder in make cmake; do
        build_and_run $builder $linkage >"$WORK/$builder-$linkage.log" 2>&1 &
        pids[$builder-$linkage]=$!
    done
done
check_headers >"$WORK/headers.log" 2>&1 &
pids[headers]=$!
check_exports >"$WORK/exports.log" 2>&1 &
pids[exports]=$!
failed=0
for check in make-shared make-static cmake-shared cmake-static headers exports; do
    if wait "${pids[$check]}"; then
        echo "$check: passed"
    else
        echo "check-consumer: $check failed:" >&2
        cat "$WORK/$check.log" >&2
        failed=1
    fi
done
exit $failed
