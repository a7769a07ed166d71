#!/usr/bin/env bash
# Compares the options that the built programs print in their help with their manual pages and completions, in both
# directions, and lets man and groff look for mistakes in the pages.
set -euo pipefail
shopt -s inherit_errexit

if [ $# -ne 1 ] || [ ! -d "$1" ]; then
    echo "usage: docs/check-options.sh BUILD_DIR" >&2
    exit 2
fi
BUILD=$(readlink -f "$1")
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.."
DIFFERENCES=0

differ() {
    echo "check-options: $*" >&2
    DIFFERENCES=$((DIFFERENCES + 1))
}

# help_of PROGRAM [COMMAND]: its help, whose failure must not look like a program without options
help_of() {
    local text
    text=$("$@" --help) || true
    if [[ $text != *--help* ]]; then
        echo "check-options: no help from $*" >&2
        exit 2
    fi
    echo "$text"
}

# options_of PROGRAM [COMMAND]: a line for each option, its names separated by commas
options_of() {
    help_of "$@" | sed -nE 's/^  (-[-a-z,]+).*/\1/p'
}

commands_of() {
    help_of "$1" | sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+) .*/\1/p'
}

# plain PAGE: its text without the marks for type and layout
plain() {
    sed -E 's/\\f[A-Z]//g; s/\\-/-/g; s/^\.(B|I|BR|RB|IR|BI|RI|TP|PP) ?//; s/"//g' "$1"
}

# section PAGE TITLE
section() {
    plain "$1" | sed -n "/^\.SH $2\$/,/^\.SH /p"
}

# synopsis PAGE START: the form of use that begins with these words, on one line
synopsis() {
    section "$1" SYNOPSIS | sed '1d;$d' | sed 's/^\.br$/\n/' | sed 's/^[[:space:]]*//' |
        awk -v RS= -v start="$2" '{ gsub(/\n/, " "); if (index($0 " ", start " ") == 1) print }'
}

# names: the options among what it reads, one a line
names() {
    grep -oE '(^|[^[:alnum:]-])(--[a-z][a-z-]*|-[a-z]\b)' | grep -oE -- '--?[a-z].*' | sort -u
}

# has LIST NAME: the list has one name in each line
has() {
    grep -qxF -- "$2" <<<"$1"
}

# has_any LIST NAME,NAME...
has_any() {
    local name
    for name in ${2//,/ }; do if has "$1" "$name"; then return 0; fi; done
    return 1
}

# every_known WHERE LIST KNOWN: a difference for each name of LIST that KNOWN does not have
every_known() {
    local name
    for name in $2; do has "$3" "$name" || differ "$1 names $name, which the program does not have"; done
}

# check_use PAGE WORDS PROGRAM [COMMAND]: the form of use against the options of the program or command
check_use() {
    local page=$1 words=$2 option shown options
    shift 2
    options=$(options_of "$@")
    shown=$(synopsis "$page" "$words" | names || true)
    for option in $options; do
        case $option in *--help | *--version) continue ;; esac
        has_any "$shown" "$option" || differ "$page does not show $option in the synopsis of '$words'"
    done
    every_known "$page, synopsis of '$words'," "$shown" "${options//,/$'\n'}"
}

# offered COMPLETION WORD...: what the completion offers for the last of the words
offered() {
    bash -c '. "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); "_$1"; printf "%s\n" "${COMPREPLY[@]}"' \
        bash "$@"
}

# check_completion COMPLETION PROGRAM [COMMAND]
check_completion() {
    local completion=$1 option options shown
    options=$(options_of "${@:2}")
    shown=$(offered "$completion" "$(basename "$2")" "${@:3}" -)
    for option in $options; do
        has_any "$shown" "$option" || differ "$completion does not offer $option behind '$(basename "$2") ${*:3}'"
    done
    every_known "$completion" "$shown" "${options//,/$'\n'}"
}

# check_program PROGRAM PAGE COMPLETION
check_program() {
    local program=$1 page=$2 completion=$3 name command all="" commands described option
    name=$(basename "$program")
    commands=$(commands_of "$program")
    all=$(options_of "$program"; for command in $commands; do options_of "$program" "$command"; done)
    all=$(sort -u <<<"${all//,/$'\n'}")
    described=$(section "$page" OPTIONS | names)
    for option in $all; do has "$described" "$option" || differ "$page does not describe $option"; done
    every_known "$page, options," "$described" "$all"
    # Elsewhere a short option may be another program's.
    every_known "$page" "$(plain "$page" | names | grep '^--')" "$all"

    check_completion "$completion" "$program"
    [ -n "$commands" ] || check_use "$page" "$name" "$program"
    for command in $commands; do
        check_use "$page" "$name $command" "$program" "$command"
        check_completion "$completion" "$program" "$command"
        section "$page" COMMANDS | grep -qE "^$command( |\$)" || differ "$page does not describe $command"
        has "$(offered "$completion" "$name" "")" "$command" || differ "$completion does not offer $command"
    done
    for command in $(offered "$completion" "$name" "" | grep -v '^-'); do
        has "$commands" "$command" || differ "$completion offers $command, which is no command"
    done
}

# check_layout PAGE
check_layout() {
    local said
    said=$({ MANWIDTH=80 LC_ALL=C.UTF-8 man --warnings -E UTF-8 -l "$1" >/dev/null; } 2>&1 || echo "man failed")
    said+=$({ groff -ww -man -z -Tutf8 "$1"; } 2>&1 || echo "groff failed")
    [ -z "$said" ] || differ "$1: $said"
}

check_program "$BUILD/service/tfersvc" man/tfersvc.8 completions/tfersvc
check_program "$BUILD/tools/tferctl/tferctl" man/tferctl.1 completions/tferctl
for page in man/*; do check_layout "$page"; done

if [ "$DIFFERENCES" -gt 0 ]; then
    echo "check-options: $DIFFERENCES differences" >&2
    exit 1
fi
echo "Manual pages and completions agree with the programs."
