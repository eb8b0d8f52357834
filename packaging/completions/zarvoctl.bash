# SPDX-License-Identifier: MIT
# bash completion for zarvoctl. Verbs and options come from "zarvoctl help --plain", so this script stays as it is when
# one is added. That takes some milliseconds, because it asks no server. Sessions come from a running server, which has
# 3 seconds to answer; none is started.

# Reads the table. Sets the caller's "verbs" and "options", which stand in the place of a verb; "own", the options of
# the verb $1; "value", what follows each of them; "arguments", what the verb takes.
_zarvoctl_read()
{
    local verb=$1 names description follows name
    while IFS=$'\t' read -r names description follows; do
        case $names in
            -*) options+=($names) ;;
            "$verb -"*)
                for name in ${names#* }; do
                    own+=("$name") value[$name]=$follows
                done ;;
            *" "*) ;;
            *)
                verbs+=("$names")
                [[ $names != "$verb" ]] || arguments=$follows ;;
        esac
    done < <("$program" help --plain 2>/dev/null)
}

# Offers ids and names of sessions, quoted, because bash puts an offer into the line as it is, and other hosts choose
# their sessions' ids and names. Names are left out until something is typed, because each session would appear twice.
_zarvoctl_sessions()
{
    local current=$1 line id name
    while IFS= read -r line; do
        printf -v id %q "${line%%$'\t'*}"
        line=${line#*$'\t'}
        printf -v name %q "${line%%$'\t'*}"
        [[ $id != -* ]] || continue # it would be an option
        if [[ $id == "$current"* ]]; then COMPREPLY+=("$id"); fi
        if [[ -n $current && $name != -* && $name == "$current"* ]]; then COMPREPLY+=("$name"); fi
    done < <(timeout 3 "$program" list --plain --no-start 2>/dev/null)
}

# Sets the caller's "given" to the number of words after the verb that are no options, "command" to the place of the
# first of them, and "starts" to 1 when they are a command to start, whose options are not ours.
_zarvoctl_given()
{
    local i word skip=
    for ((i = 2; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ -n $skip ]]; then
            skip=
        elif [[ $word == -- ]]; then
            given=$((given + COMP_CWORD - i - 1)) command=$((i + 1))
            return
        elif [[ $word == -?* ]]; then
            skip=${value[$word]-}
            [[ $word != --new ]] || starts=1
        else
            given=$((given + 1))
            [[ $command -gt 0 ]] || command=$i
            [[ -z $starts ]] || return
        fi
    done
}

# Offers what may follow, for a word such as "start|stop" or "[SESSION]".
_zarvoctl_values()
{
    local follows=$1 given=$2 current=$3
    case $follows in
        *SESSION*FILE*)
            if [[ $given -eq 0 ]]; then
                _zarvoctl_sessions "$current"
            else
                COMPREPLY=($(compgen -f -- "$current"))
            fi ;;
        *SESSION*) _zarvoctl_sessions "$current" ;;
        *\|*) [[ $given -gt 0 ]] || COMPREPLY=($(compgen -W "${follows//|/ }" -- "$current")) ;;
    esac
}

_zarvoctl()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local verbs=() options=() own=() arguments= given=0 command=0 starts=
    local -A value=()
    # A program that was typed with its path may be missing on the search path, or have other verbs than the one there.
    local program=${COMP_WORDS[0]}
    [[ $program == */* && -x $program ]] || program=zarvoctl
    COMPREPLY=()
    _zarvoctl_read "${COMP_WORDS[1]}"
    if [[ $COMP_CWORD -eq 1 ]]; then
        COMPREPLY=($(compgen -W "${verbs[*]} ${options[*]}" -- "$current"))
        return
    fi
    [[ $arguments != *COMMAND* ]] || starts=1
    _zarvoctl_given
    if [[ -n $starts && $command -gt 0 && $COMP_CWORD -gt $command ]]; then
        COMPREPLY=($(compgen -f -- "$current")) # an argument of the command
    elif [[ $previous == -?* && -n ${value[$previous]-} ]]; then
        _zarvoctl_values "${value[$previous]}" 0 "$current"
    elif [[ $current == -* ]]; then
        COMPREPLY=($(compgen -W "${own[*]}" -- "$current"))
    elif [[ -n $starts ]]; then
        COMPREPLY=($(compgen -c -- "$current" | sort -u))
    else
        _zarvoctl_values "$arguments" "$given" "$current"
    fi
}

complete -F _zarvoctl zarvoctl
