#!/usr/bin/env bash
# What a script that uses tferctl relies on. tferctl and the service are the built ones. Runs in the tests' sandbox.
#
# usage: tferctl_test.sh TFERSVC TFERCTL SHORT_SLEEPS
set -uo pipefail

readonly TFERSVC=$1 TFERCTL=$2 SHORT_SLEEPS=$3
WORK=$(mktemp -d /var/tmp/tferctl-XXXXXX)
readonly WORK
readonly DEVICE=$WORK/device STAGING=/var/local/tal/pldserver
export KY_IPC_DIR=$WORK/ipc KY_LOG_LEVEL=0
SERVICE=
FAILED=0

fail() {
    echo "FAILED: $*"
    FAILED=1
}

# expect NAME STATUS SENTENCE COMMAND...: the sentence is a pattern for one line on standard error, empty for silence
expect() {
    local name=$1 wanted=$2 sentence=$3
    shift 3
    timeout 60 "$@" >"$WORK/out" 2>"$WORK/err"
    judge "$name" "$wanted" "$sentence" $?
}

judge() {
    local name=$1 wanted=$2 sentence=$3 status=$4
    [ "$status" -eq "$wanted" ] || fail "$name: status $status, expected $wanted: $(cat "$WORK/err")"
    if [ -z "$sentence" ]; then
        [ ! -s "$WORK/err" ] || fail "$name: said $(cat "$WORK/err")"
    else
        grep -qE "$sentence" "$WORK/err" || fail "$name: said '$(cat "$WORK/err")', expected '$sentence'"
    fi
}

stop_service() {
    [ -n "$SERVICE" ] || return 0
    kill -TERM "$SERVICE"
    wait "$SERVICE" || fail "the service ended with $?"
    SERVICE=
}

# start_service OPTION...: and waits until it takes requests
start_service() {
    stop_service
    KY_LOG_LEVEL=5 LD_PRELOAD=$SHORT_SLEEPS ASAN_OPTIONS=${ASAN_OPTIONS:-}:verify_asan_link_order=0 \
        "$TFERSVC" --device-id 3 --simulate "$DEVICE" "$@" 2>"$WORK/log" &
    SERVICE=$!
    local i
    for i in $(seq 600); do
        "$TFERCTL" ls >/dev/null 2>&1 && return
        sleep 0.05
    done
    fail "the service does not answer after $i tries"
}

nothing_left() {
    local left
    left=$(find "$WORK" "$STAGING" \( -name 'TferSvcClnt*' -o -name '.tferctl*' \) 2>/dev/null)
    [ -z "$left" ] || fail "$1: left $left"
}

mkdir -p "$DEVICE"
head -c 200000 /dev/urandom >"$DEVICE/trend.csv"
echo small >"$DEVICE/two words.txt"
echo mine >"$WORK/mine.cfg"

expect "no service" 5 "No transfer service is running" "$TFERCTL" status
expect "no command" 2 "." "$TFERCTL"
expect "unknown option" 2 "." "$TFERCTL" ls --frobnicate
for command in "" status ls get put cancel; do
    # shellcheck disable=SC2086  # no command is no argument
    expect "help $command" 0 "" "$TFERCTL" $command --help
done
grep -q . "$WORK/out" || fail "help says nothing"

start_service
expect "ls" 0 "" "$TFERCTL" ls
grep -q 'trend.csv .*200000' "$WORK/out" || fail "ls: $(cat "$WORK/out")"
second=$(sed -n '3s/ .*//p' "$WORK/out")
expect "ls, a page" 0 "" "$TFERCTL" ls --skip 1 --take 1
[ "$(sed -n '2s/ .*//p;3p' "$WORK/out")" = "$second"$'\n'"Files 2 to 2 of 2" ] || fail "ls: $(cat "$WORK/out")"
expect "ls, a page as JSON" 0 "" "$TFERCTL" ls --skip 1 --take 1 --json
[ "$(grep -c '"tfername"' "$WORK/out")" = 1 ] || fail "ls --json, more than one: $(cat "$WORK/out")"
grep -q "\"tfername\":\"$second\"" "$WORK/out" || fail "ls --json, another: $(cat "$WORK/out")"
grep -q '"totalFiles":2' "$WORK/out" || fail "ls --json: $(cat "$WORK/out")"
for name in trend.csv "two words.txt"; do  # the listing has no blanks in names
    expect "get $name" 0 "" "$TFERCTL" get "${name/ /_}" -o "$WORK/got"
    cmp "$DEVICE/$name" "$WORK/got" || fail "get $name: another file"
done
expect "get to a name without a directory" 0 "" env -C "$WORK" "$TFERCTL" get trend.csv -o plain
cmp "$DEVICE/trend.csv" "$WORK/plain" || fail "get to a name without a directory: another file"
umask 027
install -m 604 /dev/null "$WORK/there"
for row in new:640 there:604; do  # a new file has the umask's mode, an older one keeps its own
    expect "get to $row" 0 "" "$TFERCTL" get trend.csv -o "$WORK/${row%:*}"
    [ "$(stat -c %a "$WORK/${row%:*}")" = "${row#*:}" ] || fail "get to $row: $(stat -c %a "$WORK/${row%:*}")"
done
umask 022
expect "get, no such file" 1 "." "$TFERCTL" get nothing -o "$WORK/nothing"
[ ! -e "$WORK/nothing" ] || fail "a file that is not there was made"
expect "get over a directory" 1 "." "$TFERCTL" get trend.csv -o "$WORK"
expect "put" 0 "" "$TFERCTL" put "$WORK/mine.cfg"
[ "$(cat "$WORK/mine.cfg")" = mine ] || fail "put took the user's own file"
cmp "$WORK/mine.cfg" "$DEVICE/3-00001" || fail "put: the device has another file"
expect "put, no such file" 1 "." "$TFERCTL" put "$WORK/absent"
expect "nothing to cancel" 3 "^tferctl: No transfer is in progress\.$" "$TFERCTL" cancel
expect "status after put" 0 "" "$TFERCTL" status
grep -qx 'Progress *100%, 5 bytes' "$WORK/out" || fail "status after put: $(cat "$WORK/out")"
# shellcheck disable=SC2016  # the inner shell expands it
expect "full output" 1 "Standard output could not be written" sh -c '"$1" status >/dev/full' sh "$TFERCTL"
"$TFERCTL" get trend.csv -o "$WORK/closed" >&-
cmp "$DEVICE/trend.csv" "$WORK/closed" || fail "get with closed output: another file"
expect "status" 0 "" "$TFERCTL" status --json
grep -q '"statusStr": "TFER_STATUS_COMPLETE"' "$WORK/out" || fail "status --json: $(cat "$WORK/out")"
nothing_left "all went well"
group=$(stat -c %G "$KY_IPC_DIR")
[ "$group" != UNKNOWN ] || group=$(stat -c %g "$KY_IPC_DIR")
for path in "$KY_IPC_DIR" "$KY_IPC_DIR/tfersvc-CtrlFifo"; do
    mode=$(stat -c %a "$path")
    chmod 070 "$path"  # the owner is denied what the group may do, as a user outside of it
    expect "outside of the group" 5 "requests from members of group $group only\.$" "$TFERCTL" status
    chmod "$mode" "$path"
done
chmod 0 "$KY_IPC_DIR"  # no group would help
expect "closed directory" 5 "cannot be reached" "$TFERCTL" status
chmod 700 "$KY_IPC_DIR"

start_service --fault push=refuse
expect "the device refuses" 1 "." "$TFERCTL" put "$WORK/mine.cfg"
for more in -1 1; do
    start_service --fault fetch=size:$more --fault fetch=announce:$more
    expect "get, other than listed" 1 'does not have the 200000 bytes' "$TFERCTL" get trend.csv -o "$WORK/other"
    [ ! -e "$WORK/other" ] || fail "a file of another size than listed was handed over"
done
truncate -s 4294967296 "$WORK/huge"
expect "put, larger than a transfer can be" 1 'larger than a transfer can be' "$TFERCTL" put "$WORK/huge"
nothing_left "a put that was refused"
start_service --fault fetch=stuck --fault push=stuck
SECONDS=0
expect "nothing moves" 4 "." "$TFERCTL" get trend.csv --timeout 1 -o "$WORK/late"
[ "$SECONDS" -lt 5 ] || fail "a time-out of one second took $SECONDS"
expect "somebody else's transfer" 3 "." "$TFERCTL" ls --no-wait
[ ! -e "$WORK/late" ] || fail "a get that timed out left its output"
expect "cancel" 0 "" "$TFERCTL" cancel

# begin NAME COMMAND...: in the background, until `status` shows the name. Jobs of a script ignore SIGINT and SIGQUIT.
begin() {
    env --default-signal=INT,QUIT "$TFERCTL" "${@:2}" >/dev/null 2>"$WORK/err" &
    CLIENT=$!
    for _ in $(seq 200); do
        "$TFERCTL" status | grep -A2 'in progress' | grep -q "$1" && return
        sleep 0.02
    done
    fail "$1 is not in progress: $(cat "$WORK/err")"
}

# ended NAME STATUS SENTENCE: as expect, of what was begun
ended() {
    wait "$CLIENT"
    judge "$@" $?
    nothing_left "$1"
}

for row in INT:130 HUP:129 TERM:143; do
    begin trend.csv get trend.csv -o "$WORK/cut"
    kill "-${row%:*}" "$CLIENT"
    ended "get with ${row%:*}" "${row#*:}" '^tferctl: Interrupted; the transfer has been cancelled\.$'
    grep -q "Cancel transaction (tferctl-$CLIENT-" "$WORK/log" || fail "cancelled without its own identifier"
    [ ! -e "$WORK/cut" ] || fail "an interrupted get left its output"
done
begin trend.csv get trend.csv -o "$WORK/cut"
kill -QUIT "$CLIENT"
ended "get with QUIT" 131 ""
"$TFERCTL" cancel >/dev/null || fail "cancel ended with $?"
begin 3-0000 put "$WORK/mine.cfg"
kill -TERM "$CLIENT"
kill -TERM "$CLIENT"  # timeout(1) sends it twice too
ended "interrupted put" 143 '^tferctl: Interrupted; the transfer has been cancelled\.$'

begin trend.csv get trend.csv
for command in "get trend.csv -o $WORK/waits" "put $WORK/mine.cfg"; do
    # shellcheck disable=SC2086  # its words
    expect "$command that waits, interrupted" 124 "Waiting for another" timeout 1 "$TFERCTL" $command
    left=$(find "$WORK" "$STAGING" -name '.tferctl*')
    [ -z "$left" ] || fail "$command that was interrupted left $left"
done
expect "foreign identifier" 3 "^tferctl: That transfer is not in progress\.$" "$TFERCTL" cancel another
"$TFERCTL" status | grep -q 'in progress' || fail "another's transfer was ended"
: >"$WORK/err"
kill -STOP "$SERVICE"
kill -INT "$CLIENT"
sleep 0.5  # two within a quarter of a second count as one
kill -INT "$CLIENT"
ended "interrupted twice" 130 ""
kill -CONT "$SERVICE"
"$TFERCTL" cancel >/dev/null 2>&1  # unless the interrupted one had asked for it before it was killed
begin trend.csv get trend.csv
"$TFERCTL" cancel >/dev/null || fail "cancel ended with $?"
ended "cancelled by somebody else" 1 '^tferctl: Somebody else has cancelled the transfer\.$'

stop_service
mkfifo "$KY_IPC_DIR/tfersvc-CtrlFifo"
expect "no reader" 5 "No transfer service is running" "$TFERCTL" status
rm -rf "$WORK"
[ "$FAILED" -eq 0 ] && echo "all is well"
exit "$FAILED"
