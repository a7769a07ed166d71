#!/usr/bin/env bash
# The part of acceptance.sh that runs in the container, as root: installs, uses, upgrades and removes the packages of
# /acceptance, and prints each check that passes. Ends at the first that fails, with its output and the journal.
set -eEuo pipefail

readonly DEVICE=/var/lib/tfersvc/device STAGING=/var/local/tal/pldserver
readonly DOWNLOADS=$STAGING/3/tferFiles
readonly WORK=/tmp/acceptance
readonly STOP_SECONDS=5 # the unit's TimeoutStopSec
CHECK='the beginning'

# check NAME FUNCTION: the script ends if a command of the function fails
check() {
    CHECK=$1
    "$2" >"$WORK/output" 2>&1
    echo "passed: $CHECK" >&3
}

report_failure() {
    local status=$?
    [ "$status" -ne 0 ] || return 0
    {
        echo "FAILED: $CHECK, at line $FAILED_LINE"
        cat "$WORK/output"
        echo "The journal:"
        journalctl --no-pager -u tfersvc -n 60
    } >&3 2>&1
}

# fails COMMAND...: a "!" in front would not end the script
fails() {
    if "$@"; then
        echo "did not fail: $*"
        return 1
    fi
}

# until_true SECONDS COMMAND...
until_true() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        if [ "$SECONDS" -ge "$deadline" ]; then
            echo "in vain: $*"
            return 1
        fi
        sleep 0.1
    done
}

# as USER COMMAND...
as() {
    setpriv --reuid "$1" --regid "$1" --init-groups -- "${@:2}"
}

property() {
    systemctl show --property="$1" --value tfersvc
}

service_pid() {
    property MainPID
}

is_ready() {
    as member tferctl ls >/dev/null 2>&1
}

# record_holds TEXT: the status record as JSON contains it
record_holds() {
    as member tferctl status --json 2>/dev/null | grep -q "$1"
}

# begin_fetch: fetches the large file in the background, and returns when part of it has come
begin_fetch() {
    as member tferctl get trend.csv -o "$WORK/interrupted" &
    FETCH=$!
    until_true 20 record_holds '"TFER_STATUS_INPROGRESS"'
    until_true 20 test -s "$STAGING/3/trend.csv" -o -s "$DOWNLOADS/trend.csv"
}

# --- the checks

install_previous() {
    find / -xdev | sort >"$WORK/paths-before"
    dpkg -i /acceptance/old/*.deb
    dpkg-query -W -f='${Status} ${Version}\n' kytfer-tools libkytfer0.1 >"$WORK/installed"
    [ "$(grep -c 'install ok installed 0~previous' "$WORK/installed")" -eq 2 ]
}

user_and_directories() {
    [ "$(id -gn tfersvc)" = tfersvc ]
    [ "$(stat -c '%U:%G %a' $STAGING)" = 'tfersvc:tfersvc 2770' ]
    [ "$(stat -c '%U:%G %a' /var/tmp/dmp)" = 'tfersvc:tfersvc 755' ]
    useradd -m -G tfersvc member
    useradd -m stranger
}

# The administrator enables the unit, after having said which device it is for.
not_started_yet() {
    [ "$(systemctl is-enabled tfersvc)" = disabled ]
    [ "$(systemctl is-active tfersvc)" = inactive ]
}

start() {
    mkdir -p /etc/systemd/system/tfersvc.service.d
    cat >/etc/systemd/system/tfersvc.service.d/slow.conf <<UNIT
[Service]
ExecStart=
ExecStart=/usr/bin/tfersvc --device-id 3 --simulate $DEVICE --line-rate 100000
UNIT
    systemctl daemon-reload
    systemctl enable --now tfersvc
    systemctl is-active tfersvc
    seq 1 4000 >"$DEVICE/event.log"
    seq -w 1 75000 >"$DEVICE/trend.csv"
}

becomes_ready() {
    until_true 30 is_ready
    journalctl -u tfersvc | grep 'the engine is ready, status 0'
}

fetch_is_equal() {
    rm -f "$WORK/fetched"
    as member tferctl get "$1" -o "$WORK/fetched"
    cmp "$DEVICE/$1" "$WORK/fetched"
}

lists_fetches_and_reports() {
    as member tferctl ls | tee "$WORK/listing"
    grep -q '^event.log .* 18893 ' "$WORK/listing"
    grep -q '^trend.csv .* 450000 ' "$WORK/listing"
    fetch_is_equal event.log
    record_holds '"TFER_STATUS_COMPLETE"'
}

sends() {
    seq 500 900 >"$WORK/settings.cfg"
    as member tferctl put "$WORK/settings.cfg"
    local sent
    sent=$(as member tferctl status --json | sed -n 's/.*"tfername": "\(.*\)".*/\1/p')
    cmp "$WORK/settings.cfg" "$DEVICE/$sent"
}

cancels() {
    begin_fetch
    as member tferctl cancel
    fails wait "$FETCH"
    record_holds 'File transfer cancelled'
    [ ! -e "$WORK/interrupted" ]
}

refuses_strangers() {
    local status=0
    as stranger tferctl status >"$WORK/refusal" 2>&1 || status=$?
    cat "$WORK/refusal"
    [ "$status" -eq 5 ]
    grep -q 'group tfersvc' "$WORK/refusal"
    fails as stranger cat $DOWNLOADS/event.log
}

rated_secure() {
    systemd-analyze security --no-pager --threshold=10 tfersvc # tenths
}

process_is_restricted() {
    local status
    status=/proc/$(service_pid)/status
    cat "$status"
    grep -qE "^Uid:\s+$(id -u tfersvc)\s" "$status"
    grep -qE '^NoNewPrivs:\s+1$' "$status"
    grep -qE '^Seccomp:\s+2$' "$status" # a filter
    grep -qE '^CapBnd:\s+0+$' "$status"
    grep -qE '^CapEff:\s+0+$' "$status"
}

# Root may write everywhere: only the mounts can refuse it.
files_are_restricted() {
    local seen
    seen=/proc/$(service_pid)/root
    fails touch "$seen/usr/mine"
    fails touch "$seen/var/lib/mine"
    touch "$seen$STAGING/mine"
    rm "$seen$STAGING/mine"
    [ -n "$(ls /home)" ]
    [ -z "$(ls "$seen/home")" ]
}

killed_during_a_fetch() {
    local before
    before=$(service_pid)
    begin_fetch
    systemctl kill -s KILL tfersvc
    fails wait "$FETCH"
    [ ! -e "$WORK/interrupted" ]
    until_true 10 systemctl is-active tfersvc
    [ "$(property NRestarts)" -eq 1 ]
    [ "$(service_pid)" -ne "$before" ]
}

record_is_empty_after_restart() {
    until_true 10 record_holds '"TFER_STATUS_NONE"'
    find /run/ky-ipc -mindepth 1 -printf '%f\n' | sort | tee "$WORK/fifos"
    [ "$(paste -sd' ' "$WORK/fifos")" = 'tfersvc-CtrlFifo tfersvc.lock' ]
}

next_fetch_works() {
    until_true 30 is_ready
    fetch_is_equal trend.csv
    find $STAGING -name 'trend.csv' | tee "$WORK/copies"
    [ "$(cat "$WORK/copies")" = $DOWNLOADS/trend.csv ] # nothing left of the interrupted one
}

upgrade() {
    local before
    before=$(service_pid)
    dpkg -i /acceptance/new/*.deb
    dpkg --compare-versions "$(dpkg-query -W -f='${Version}' kytfer-tools)" gt 0~previous
    [ "$(service_pid)" -ne "$before" ]
    systemctl is-active tfersvc
    systemctl is-enabled tfersvc
    property ExecStart | grep -- '--line-rate 100000' # the administrator's drop-in
    until_true 30 is_ready
    fetch_is_equal event.log
}

stops_during_a_fetch() {
    begin_fetch
    local began=$SECONDS
    systemctl stop tfersvc
    [ $((SECONDS - began)) -le $STOP_SECONDS ]
    [ "$(property Result)" = success ]
    fails wait "$FETCH"
    [ ! -e /run/ky-ipc ]
}

remove() {
    systemctl start tfersvc
    find $STAGING $DEVICE -type f -exec sha256sum {} + | sort >"$WORK/files"
    grep -q "$DOWNLOADS/event.log" "$WORK/files"
    dpkg --remove kytfer-tools libkytfer0.1
    fails pgrep -x tfersvc
    [ ! -e /usr/bin/tfersvc ]
    find $STAGING $DEVICE -type f -exec sha256sum {} + | sort | diff "$WORK/files" -
}

# Debian keeps the users of removed packages. The drop-in and its link are the administrator's.
purge() {
    dpkg --purge kytfer-tools
    rm -r /etc/systemd/system/tfersvc.service.d
    find / -xdev | sort >"$WORK/paths-after"
    comm -13 "$WORK/paths-before" "$WORK/paths-after" |
        grep -vE '^/(var/(log|cache|lib/dpkg|mail)|home|etc/(passwd|group|shadow|gshadow|subuid|subgid)-?)(/|$)' |
        tee "$WORK/remains" || true
    [ ! -s "$WORK/remains" ]
}

mkdir -m 1777 $WORK
exec 3>&1
: >"$WORK/output"
FAILED_LINE=0
trap 'FAILED_LINE=$LINENO' ERR
trap report_failure EXIT

check 'a previous version is installed' install_previous
check 'its user, group and directories are there' user_and_directories
check 'the service waits to be enabled' not_started_yet
check 'the service starts' start
check 'the module search ends' becomes_ready
check 'a member of the group lists, fetches and asks for the status' lists_fetches_and_reports
check 'a member sends a file' sends
check 'a member cancels a fetch' cancels
check 'a user outside of the group is refused, and told the group' refuses_strangers
check 'the exposure is at most 1.0' rated_secure
check 'the process has no privileges' process_is_restricted
check 'the file system is read-only but for the data' files_are_restricted
check 'systemd restarts the service that was killed during a fetch' killed_during_a_fetch
check 'the record is empty then, and no FIFO is left' record_is_empty_after_restart
check 'the next fetch works' next_fetch_works
check 'an upgrade restarts the service and keeps its settings' upgrade
check 'the service stops in time during a fetch' stops_during_a_fetch
check 'removing the packages keeps all files' remove
check 'purging them leaves nothing' purge
