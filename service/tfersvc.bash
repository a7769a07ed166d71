# Bash completion for tfersvc(8).

_tfersvc() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local kinds="silent none twice late: size: announce: nofile garbage refuse stuck"

    COMPREPLY=()
    # In OPERATION=KIND, bash takes "=" for a word.
    if [[ $current == = ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$kinds")
        return
    fi
    case $previous in
        --simulate)
            mapfile -t COMPREPLY < <(compgen -d -- "$current")
            compopt -o filenames
            ;;
        --fault)
            mapfile -t COMPREPLY < <(compgen -W "fetch= push= directory=" -- "$current")
            compopt -o nospace
            ;;
        =) mapfile -t COMPREPLY < <(compgen -W "$kinds" -- "$current") ;;
        --device-id | --poll-pause | --line-rate) ;;
        *)
            mapfile -t COMPREPLY < <(
                compgen -W "--help --version --device-id --poll-pause --simulate --line-rate --usb --fault" -- \
                    "$current"
            )
            ;;
    esac
}

complete -F _tfersvc tfersvc
