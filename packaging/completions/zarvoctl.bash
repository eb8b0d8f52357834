# SPDX-License-Identifier: MIT
# bash completion for zarvoctl. Asks a server that runs for its sessions, not for long, and never starts one.

# Ids that begin with what is typed so far, and names, unless nothing is typed: then they would only double the choice.
_zarvoctl_sessions()
{
    local current=$1 line id name
    while IFS= read -r line; do
        id=${line%%$'\t'*}
        line=${line#*$'\t'}
        printf -v name %q "${line%%$'\t'*}"
        if [[ $id == "$current"* ]]; then COMPREPLY+=("$id"); fi
        if [[ -n $current && $name == "$current"* ]]; then COMPREPLY+=("$name"); fi
    done < <(timeout 3 zarvoctl list --plain --no-start 2>/dev/null)
}

# Sets "given" to the words behind the verb that are no options, "command" to the place of the first of them, and "starts"
# to something when they are a command that is to be started.
_zarvoctl_given()
{
    local i word skip=
    given=() command=0 starts=
    [[ $1 != start ]] || starts=1
    for ((i = 2; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ ${#given[@]} -gt 0 && -n $starts ]]; then
            given+=("$word")
        elif [[ -n $skip ]]; then
            skip=
        elif [[ $word == -- ]]; then
            given+=("${COMP_WORDS[@]:i + 1:COMP_CWORD - i - 1}")
            command=$((i + 1))
            return
        else
            case $word in
                --geometry | --for | --timeout | --lines | -n) skip=1 ;;
                --new) starts=1 ;;
                -?*) ;;
                *) given+=("$word") && [ "$command" -gt 0 ] || command=$i ;;
            esac
        fi
    done
}

_zarvoctl_options()
{
    case $1 in
        connect) echo "--new --geometry --print --json --no-start" ;;
        list | ls) echo "--local --json --plain --no-legend --no-start" ;;
        start) echo "--geometry --connect --json --no-start" ;;
        resume | replay | version | describe) echo "--json --no-start" ;;
        suspend | watch | screenshot) echo "--no-start" ;;
        terminate) echo "--all -y --yes --no-start" ;;
        wait) echo "--for --timeout --no-start" ;;
        logs) echo "-n --lines --app" ;;
        doctor) echo "--json" ;;
        server) echo "--json -n --lines" ;;
    esac
    echo "-h --help"
}

_zarvoctl()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} verb=${COMP_WORDS[1]}
    local given command starts
    COMPREPLY=()
    if [ "$COMP_CWORD" -eq 1 ]; then
        COMPREPLY=($(compgen -W "connect list ls start resume replay suspend terminate watch wait logs screenshot doctor
            server version describe help --help --version" -- "$current"))
        return
    fi
    _zarvoctl_given "$verb"
    if [[ -n $starts && $command -gt 0 && $COMP_CWORD -gt $command ]]; then
        COMPREPLY=($(compgen -f -- "$current")) # it is the command's from here on
        return
    fi
    case $previous in
        --for) COMPREPLY=($(compgen -W "connected suspended ended" -- "$current")) && return ;;
        --geometry) COMPREPLY=($(compgen -W "rootless 1280x800 1920x1080" -- "$current")) && return ;;
        --timeout | --lines | -n) return ;;
    esac
    case $current in
        -*) COMPREPLY=($(compgen -W "$(_zarvoctl_options "$verb")" -- "$current")) && return ;;
    esac
    if [[ -n $starts ]]; then
        COMPREPLY=($(compgen -c -- "$current" | sort -u))
        return
    fi
    case $verb in
        connect | resume | replay | suspend | terminate | wait | logs)
            _zarvoctl_sessions "$current" ;;
        screenshot)
            if [ ${#given[@]} -eq 0 ]; then
                _zarvoctl_sessions "$current"
            else
                COMPREPLY=($(compgen -f -- "$current"))
            fi ;;
        server) COMPREPLY=($(compgen -W "start stop status log" -- "$current")) ;;
        help) COMPREPLY=($(compgen -W "connect list start resume replay suspend terminate watch wait logs screenshot doctor
            server version describe" -- "$current")) ;;
    esac
}

complete -F _zarvoctl zarvoctl
