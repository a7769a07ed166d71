#!/bin/sh
# Checks a systemd unit without a running systemd, and without root: its exposure as systemd-analyze rates it must
# be 0.8 at most, and systemd must understand each of its lines.
#
# usage: check-unit.sh [UNIT]
set -eu

UNIT=${1:-$(dirname "$0")/tfersvc.service}
MOST=8 # tenths; almost every restriction that the unit loses adds one

die() {
    echo "check-unit: $*" >&2
    exit 1
}

command -v systemd-analyze >/dev/null || die "systemd-analyze is missing; the package systemd has it"
[ -r "$UNIT" ] || die "cannot read $UNIT"
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

if ! systemd-analyze security --no-pager --offline=true --threshold="$MOST" "$UNIT" >"$WORK/report" 2>&1; then
    grep -v '^✓' "$WORK/report" >&2 || true
    die "$UNIT leaves the machine too exposed"
fi

# The program need not be installed here, nor its manual.
COPY=$WORK/$(basename "$UNIT")
sed 's|^ExecStart=[^ ]*|ExecStart=/bin/true|' "$UNIT" >"$COPY"
systemd-analyze verify --man=no --recursive-errors=no "$COPY" >"$WORK/verdict" 2>&1 || die "$(cat "$WORK/verdict")"
# What it only warns of; other units of the machine are no concern.
if grep -F "$(basename "$UNIT")" "$WORK/verdict" >&2; then die "$UNIT is not clean"; fi
tail -n 1 "$WORK/report"
