#!/usr/bin/env bash
# usage: packaging/build-deb.sh OUT_DIR
#
# Builds the Debian packages from the tree's files, committed or not, into OUT_DIR. Builds them twice, with different
# folders, umasks, time zones and locales, and fails if a package differs in a byte. Fails if lintian has an error or a
# warning. Runs no tests and needs no root.
set -euo pipefail

SOURCE=$(dirname "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")")

die() {
    echo "build-deb: $*" >&2
    exit 1
}

# export_to DIRECTORY: copies the files that git does not ignore, or without git all but build/
export_to() {
    mkdir -p "$1"
    if [ -e "$SOURCE/.git" ]; then
        (cd "$SOURCE" && git ls-files -z --cached --others --exclude-standard | while IFS= read -r -d '' file; do
            [ ! -e "$file" ] || printf '%s\0' "$file"
        done | tar -c --null -T - -f -)
    else
        tar -c -C "$SOURCE" --exclude=./build -f - .
    fi | tar -x --no-same-permissions -C "$1" -f -
}

# build DIRECTORY LOG VARIABLE=VALUE...: builds without the caller's environment, and without the packages of debug
# symbols, which are ten times as large as all others together.
build() {
    local directory=$1 log=$2
    shift 2
    (cd "$directory" && env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME="$WORK" \
        DEB_BUILD_OPTIONS="terse noautodbgsym parallel=$(nproc)" SOURCE_DATE_EPOCH="$EPOCH" "$@" \
        dpkg-buildpackage -us -uc) >"$log" 2>&1 || { tail -n 40 "$log" >&2; die "the build failed"; }
}

[ $# -eq 1 ] || { echo "usage: packaging/build-deb.sh OUT_DIR" >&2; exit 2; }
mkdir -p "$1"
OUT=$(readlink -f "$1")
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
EPOCH=$(dpkg-parsechangelog -l "$SOURCE/debian/changelog" -S Timestamp)

version=$(sed -nE 's/^project\(kytfer VERSION ([0-9.]+).*/\1/p' "$SOURCE/CMakeLists.txt")
[ "$(dpkg-parsechangelog -l "$SOURCE/debian/changelog" -S Version)" = "$version" ] ||
    die "debian/changelog and CMakeLists.txt, which says $version, disagree about the version"

FIRST=$WORK/first
SECOND=$WORK/a-second-one/and-deeper
(umask 022 && export_to "$FIRST/kytfer")
(umask 027 && export_to "$SECOND/another-name")
echo "Building, first"
(umask 022 && build "$FIRST/kytfer" "$WORK/first.log" TZ=UTC LANG=C.UTF-8)
echo "Building, second"
(umask 027 && build "$SECOND/another-name" "$WORK/second.log" TZ=Asia/Kathmandu LANG=C LC_ALL=C)

count=0
for package in "$FIRST"/*.deb; do
    cmp "$package" "$SECOND/${package##*/}" || die "${package##*/} differs between two builds"
    count=$((count + 1))
done
[ "$count" -ge 3 ] || die "only $count packages were built"
echo "$count packages, each the same from both builds"

rm -f "$OUT"/*.deb "$OUT"/*.changes "$OUT"/*.buildinfo "$OUT"/*.dsc "$OUT"/*.tar.*
cp "$FIRST"/*.* "$OUT"
lintian_options=(--fail-on "error,warning" -i)
[ "$(id -u)" -ne 0 ] || lintian_options+=(--allow-root)
lintian "${lintian_options[@]}" "$OUT"/*.changes
echo "lintian has nothing to say; the packages are in $OUT"
