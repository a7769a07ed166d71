#!/usr/bin/env bash
# usage: packaging/check-changelog.sh [BASE]
#
# Fails if public headers have changed since BASE and CHANGELOG.md has not; changes that are not committed count.
# BASE is a commit or a tag. Otherwise it is the latest tag, or without tags the commit that last changed
# CHANGELOG.md. Where there is nothing to compare with it says so, and succeeds.
set -euo pipefail

cd "$(dirname "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")")"
LIST=cmake/public-headers.txt

nothing_to_compare() {
    echo "check-changelog: NOTHING COMPARED: $1" >&2
    exit 0
}

[ $# -le 1 ] || { echo "usage: packaging/check-changelog.sh [BASE]" >&2; exit 2; }
[ -e .git ] || nothing_to_compare "this is no clone of a repository"
git rev-parse --verify HEAD >/dev/null || exit 2
if [ $# -eq 1 ]; then
    base=$(git rev-parse -q --verify "$1^{commit}") || { echo "check-changelog: no commit '$1' here" >&2; exit 2; }
elif tag=$(git describe --tags --abbrev=0 2>/dev/null); then
    base=$(git rev-parse "$tag^{commit}")
else
    base=$(git log -1 --format=%H -- CHANGELOG.md)
    [ -n "$base" ] || nothing_to_compare "CHANGELOG.md has never been committed"
    # Where a shallow clone ends, every file looks as if it had just been added.
    shallow=$(git rev-parse --git-path shallow)
    if [ -f "$shallow" ] && grep -q "$base" "$shallow"; then
        nothing_to_compare "the clone is shallow and holds no tag; fetch more (git fetch --unshallow) or name a BASE"
    fi
fi

mapfile -t headers < <({ cat "$LIST"; git show "$base:$LIST" 2>/dev/null || true; } | sort -u)
mapfile -t changed < <(git diff --name-only "$base" -- "$LIST" "${headers[@]}")
if [ ${#changed[@]} -eq 0 ]; then
    echo "no public header has changed since ${base:0:12}"
elif git diff --quiet "$base" -- CHANGELOG.md; then
    echo "check-changelog: public headers have changed since ${base:0:12}, and CHANGELOG.md has not:" >&2
    printf '    %s\n' "${changed[@]}" >&2
    exit 1
else
    echo "public headers have changed since ${base:0:12}, and so has CHANGELOG.md"
fi
