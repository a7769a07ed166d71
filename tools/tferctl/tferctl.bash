# Bash completion for tferctl(1). Names of the device's files are not completed: that would need a transfer.

_tferctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command="" word
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
            status | ls | get | put | cancel)
                command=$word
                break
                ;;
        esac
    done

    COMPREPLY=()
    case $previous in
        -o | --output)
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            compopt -o filenames
            return
            ;;
        --skip | --take | --timeout) return ;;
    esac

    local options="--help"
    case $command in
        "") options+=" --version status ls get put cancel" ;;
        status) options+=" --json --watch --timeout" ;;
        ls) options+=" --skip --take --json --no-wait --timeout" ;;
        get) options+=" --output --no-wait --timeout" ;;
        put) options+=" --no-wait --timeout" ;;
    esac
    if [[ $command == put && $current != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        compopt -o filenames
    elif [[ -z $command || $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    fi
}

complete -F _tferctl tferctl
