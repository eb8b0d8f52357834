# SPDX-License-Identifier: MIT
# fish completion for zarvoctl. Asks a server that runs for its sessions, not for long, and never starts one.

function __zarvoctl_sessions
    set -l lines (timeout 3 zarvoctl list --plain --no-start 2>/dev/null)
    string replace -r '^([^\t]*)\t([^\t]*)\t.*' '$1\t$2' -- $lines
    # Names only once something is typed, or they would double the choice.
    if test -n "$(commandline -ct)"
        string replace -r '^([^\t]*)\t([^\t]*)\t.*' '$2\t$1' -- $lines
    end
end

# Whether the command of "start" is still to come: behind its first word, options are the command's own.
function __zarvoctl_no_command
    set -l words (commandline -opc)
    set -l skip no
    for word in $words[3..-1]
        if test $skip = yes
            set skip no
        else if test "$word" = --geometry
            set skip yes
        else if not string match -q -- '-?*' $word; or test "$word" = --
            return 1
        end
    end
end

# Whether the verb takes our own options here.
function __zarvoctl_at
    __fish_seen_subcommand_from $argv; or return 1
    set -l words (commandline -opc)
    test "$words[2]" != start; or __zarvoctl_no_command
end

set -l verbs connect list ls start resume replay suspend terminate watch wait logs screenshot doctor server version describe help
set -l first "not __fish_seen_subcommand_from $verbs"

complete -c zarvoctl -f
complete -c zarvoctl -n $first -a connect -d 'Get into a session with a VNC viewer'
complete -c zarvoctl -n $first -a 'list ls' -d 'List the sessions'
complete -c zarvoctl -n $first -a start -d 'Start a session of a command'
complete -c zarvoctl -n $first -a resume -d 'Make a new password for a suspended session'
complete -c zarvoctl -n $first -a replay -d 'Print the password that a session offers already'
complete -c zarvoctl -n $first -a suspend -d 'Throw the viewers out'
complete -c zarvoctl -n $first -a terminate -d 'End sessions and their programs'
complete -c zarvoctl -n $first -a watch -d 'Show every change of the sessions'
complete -c zarvoctl -n $first -a wait -d 'Wait until a session is connected, suspended or ended'
complete -c zarvoctl -n $first -a logs -d 'Print the log of a session\'s agent'
complete -c zarvoctl -n $first -a screenshot -d 'Take a picture of a session'
complete -c zarvoctl -n $first -a doctor -d 'Look for what may be wrong'
complete -c zarvoctl -n $first -a server -d 'Start, stop or look at the server itself'
complete -c zarvoctl -n $first -a version -d 'Print the versions'
complete -c zarvoctl -n $first -a describe -d 'Describe the methods of the server'
complete -c zarvoctl -n $first -a help -d 'How to use a verb'
complete -c zarvoctl -n $first -l version -d 'Print the version of this program'
complete -c zarvoctl -s h -l help -d 'How to use it'

complete -c zarvoctl -n '__fish_seen_subcommand_from connect; and not __fish_contains_opt new' -a '(__zarvoctl_sessions)'
complete -c zarvoctl -n '__fish_seen_subcommand_from connect; and __fish_contains_opt new' -a '(__fish_complete_subcommand)'
complete -c zarvoctl -n '__fish_seen_subcommand_from resume replay suspend terminate wait logs screenshot' -a '(__zarvoctl_sessions)'
complete -c zarvoctl -n '__fish_seen_subcommand_from screenshot' -F
complete -c zarvoctl -n '__fish_seen_subcommand_from server' -a 'start stop status log'
complete -c zarvoctl -n '__fish_seen_subcommand_from help' -a "$verbs"
complete -c zarvoctl -n '__fish_seen_subcommand_from start' -a '(__fish_complete_subcommand)'

complete -c zarvoctl -n '__zarvoctl_at connect list ls start resume replay doctor server version describe' -l json -d 'Print JSON'
complete -c zarvoctl -n '__zarvoctl_at connect list ls start resume replay suspend terminate watch wait screenshot version describe' -l no-start -d 'Start no server'
complete -c zarvoctl -n '__zarvoctl_at connect start' -l geometry -x -a 'rootless 1280x800 1920x1080' -d 'Size of the desktop'
complete -c zarvoctl -n '__fish_seen_subcommand_from connect' -l new -d 'Start a new session first'
complete -c zarvoctl -n '__fish_seen_subcommand_from connect' -l print -d 'Print host, port and password'
complete -c zarvoctl -n '__zarvoctl_at start' -l connect -d 'Run a viewer on it'
complete -c zarvoctl -n '__fish_seen_subcommand_from list ls' -l local -d 'Only this host'
complete -c zarvoctl -n '__fish_seen_subcommand_from list ls' -l plain -d 'For scripts'
complete -c zarvoctl -n '__fish_seen_subcommand_from list ls' -l no-legend -d 'No titles'
complete -c zarvoctl -n '__fish_seen_subcommand_from terminate' -l all -d 'All of this host'
complete -c zarvoctl -n '__fish_seen_subcommand_from terminate' -s y -l yes -d 'Do not ask'
complete -c zarvoctl -n '__fish_seen_subcommand_from wait' -l for -x -a 'connected suspended ended' -d 'What to wait for'
complete -c zarvoctl -n '__fish_seen_subcommand_from wait' -l timeout -x -d 'Seconds'
complete -c zarvoctl -n '__fish_seen_subcommand_from logs server' -s n -l lines -x -d 'The last N lines'
complete -c zarvoctl -n '__fish_seen_subcommand_from logs' -l app -d 'The output of the programs'
