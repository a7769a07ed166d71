#!/usr/bin/env bash
# usage: docs/check-options.sh BUILD_DIR
#
# Fails unless manual pages and completions name exactly the options that the built programs print in their help.
set -euo pipefail

BUILD=$(readlink -e "$1")
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.."
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

# help_of PROGRAM: its help and that of its subcommands
help_of() {
    local command
    "$1" --help
    for command in $("$1" --help | sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+) .*/\1/p'); do
        "$1" "$command" --help
    done
}

# options FILE: the long options in it, one a line
options() {
    sed 's/\\-/-/g' "$1" | grep -oE -- '--[a-z][a-z-]*' | sort -u
}

# check PROGRAM PAGE COMPLETION
check() {
    help_of "$1" >"$WORK/help"
    local file
    for file in "$2" "$3"; do
        diff -u --label "options of $(basename "$1")" --label "$file" <(options "$WORK/help") <(options "$file")
    done
    man --warnings -E UTF-8 -l "$2" 2>"$WORK/warnings" >/dev/null
    diff -u --label "no warnings" --label "warnings for $2" /dev/null "$WORK/warnings"
}

check "$BUILD/service/tfersvc" service/tfersvc.8 service/tfersvc.bash
check "$BUILD/tools/tferctl/tferctl" tools/tferctl/tferctl.1 tools/tferctl/tferctl.bash
echo "Manual pages and completions name the options of the programs."
