#!/usr/bin/env bash
# Transfers files as on a card: between a service and tferctl. Runs in tests/sandbox.sh, started by ./dev demo.
#
# usage: service-demo.sh TFERSVC TFERCTL FILE_OR_DIRECTORY...
set -euo pipefail

readonly TFERSVC=$1 TFERCTL=$2
shift 2
readonly WORK=/var/tmp/demo
readonly DEVICE=$WORK/device FETCHED=$WORK/fetched LOG=$WORK/tfersvc.log
export KY_IPC_DIR=$WORK/ipc
SERVICE=

die() {
    echo "demo: $*" >&2
    exit 1
}

say() {
    printf '\n%s\n' "$*"
}

stop_service() {
    [ -n "$SERVICE" ] || return 0
    kill -TERM "$SERVICE" 2>/dev/null || true
    local status=0
    wait "$SERVICE" || status=$?
    SERVICE=
    [ "$status" -eq 0 ] || die "the service ended with status $status; its log is $LOG"
}

# The device's files: those that the user names, or samples.
make_device() {
    rm -rf "$WORK" /var/local/tal
    mkdir -p "$DEVICE" "$FETCHED"
    local given
    for given in "$@"; do
        if [ -d "$given" ]; then
            find "$given" -maxdepth 1 -type f ! -name '.*' -exec cp -pt "$DEVICE" {} +
        else
            cp -p "$given" "$DEVICE"
        fi
    done
    [ $# -eq 0 ] || return 0
    printf 'unit=ups-3\nbaud=19200\n' >"$DEVICE/config.cfg"
    seq -f '2024-03-15 08:%05g event of the device' 1 600 >"$DEVICE/event.log"
    seq -w 1 43885 | head -c 307200 >"$DEVICE/trend.csv"
}

# The line rate with which the largest file takes two and a half seconds.
line_rate() {
    local largest
    largest=$(find "$DEVICE" -type f -printf '%s\n' | sort -n | tail -n 1)
    echo $((largest * 2 / 5 + 1000))
}

start_service() {
    "$TFERSVC" --device-id 3 --simulate "$DEVICE" --line-rate "$(line_rate)" 2>"$LOG" &
    SERVICE=$!
    trap stop_service EXIT
    local status
    while true; do
        status=0
        "$TFERCTL" ls >/dev/null 2>"$WORK/answer" || status=$?
        case $status in
            0) return ;;
            3 | 5) ;;  # the module search is not finished, or the service not started
            *) die "$(cat "$WORK/answer")" ;;
        esac
        kill -0 "$SERVICE" 2>/dev/null || die "the service did not start; its log is $LOG"
        sleep 0.2
    done
}

# The result of the negotiation, from the service's log.
tell_negotiation() {
    sed -n 's/.*index (1-based) that we will use: \(.*\)/  The card is module \1 of the device/p' "$LOG"
    sed -n 's/.*Init: download dir is(\(.*\))/  Both speak Sorrel 485; files of the device arrive in \1/p' "$LOG"
}

fetch_and_compare() {
    local file name
    for file in "$DEVICE"/*; do
        name=$(basename "$file")
        "$TFERCTL" get "$name" -o "$FETCHED/$name" || die "could not fetch $name"
        cmp "$file" "$FETCHED/$name" || die "$name is not what the device has"
        COMPARED=$((COMPARED + 1))
    done
}

push_and_compare() {
    local file=$1 arrived
    "$TFERCTL" put "$file" || die "could not push $file"
    [ -f "$file" ] || die "the user's own file has gone"
    arrived=$DEVICE/$("$TFERCTL" status --json | sed -n 's/.*"tfername": "\(.*\)".*/\1/p')
    cmp "$file" "$arrived" || die "the device has something else than was pushed"
    COMPARED=$((COMPARED + 1))
}

COMPARED=0
make_device "$@"
[ -n "$(ls "$DEVICE")" ] || die "there is no file to fetch"
echo "Starting the service; the card searches for its place in the device for eight seconds"
start_service
tell_negotiation
say "\$ tferctl ls"
"$TFERCTL" ls
say "\$ tferctl ls --take 1 --json"
"$TFERCTL" ls --take 1 --json
say "\$ tferctl get NAME -o FILE, for each, and a comparison byte for byte"
fetch_and_compare
say "\$ tferctl put FILE, and a comparison on the device's side"
cp "$(find "$FETCHED" -type f | sort | head -n 1)" "$WORK/to-push.bin"
push_and_compare "$WORK/to-push.bin"
say "\$ tferctl status --json"
"$TFERCTL" status --json
stop_service
say "$COMPARED transfers, all equal byte for byte; the service has ended as it should"
