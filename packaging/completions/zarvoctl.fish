# SPDX-License-Identifier: MIT
# fish completion for zarvoctl. Verbs and options come from "zarvoctl help --plain", so this script stays as it is when
# one is added; fish runs it once. Sessions come from a running server, which has 3 seconds to answer; none is started.

function __zarvoctl_sessions
    # One that begins with a dash would be an option.
    set -l lines (timeout 3 zarvoctl list --plain --no-start 2>/dev/null | string match -rv '^-')
    string replace -r '^([^\t]*)\t([^\t]*)\t.*' '$1\t$2' -- $lines
    # Names are left out until something is typed, because each session would appear twice.
    if test -n "$(commandline -ct)"
        string replace -r '^([^\t]*)\t([^\t]*)\t.*' '$2\t$1' -- $lines | string match -rv '^-'
    end
end

# Whether the verb is $argv[1].
function __zarvoctl_at
    set -l words (commandline -opc)
    test (count $words) -gt 1; and test "$words[2]" = $argv[1]
end

# Whether the verb is $argv[1] and its command is still to come, because options behind that are the command's own. The
# other arguments are the options that a value follows.
function __zarvoctl_before_command
    __zarvoctl_at $argv[1]; or return 1
    set -l words (commandline -opc)
    set -l skip no
    for word in $words[3..-1]
        if test $skip = yes
            set skip no
        else if contains -- $word $argv[2..-1]
            set skip yes
        else if not string match -q -- '-?*' $word; or test "$word" = --
            return 1
        end
    end
end

# Declares what may follow the verb $argv[1], which takes $argv[2].
function __zarvoctl_declare_arguments
    set -l at "__zarvoctl_at $argv[1]"
    switch $argv[2]
        case '*COMMAND*'
            complete -c zarvoctl -n $at -a '(__fish_complete_subcommand)'
        case '*SESSION*'
            complete -c zarvoctl -n "$at; and not __fish_contains_opt new" -a '(__zarvoctl_sessions)'
            complete -c zarvoctl -n "$at; and __fish_contains_opt new" -a '(__fish_complete_subcommand)'
            string match -q '*FILE*' $argv[2]; and complete -c zarvoctl -n $at -F
        case '*|*'
            complete -c zarvoctl -n "$at; and test (count (commandline -opc)) -eq 2" -a (string replace -a '|' ' ' -- $argv[2])
    end
end

# Declares an option under the condition $argv[1]. The rest is its row of the table: names, description, what follows.
function __zarvoctl_declare_option
    set -l form -c zarvoctl -n $argv[1] -d $argv[3]
    for name in (string split ' ' -- $argv[2])
        string match -q -- '--*' $name; and set -a form -l (string sub -s 3 -- $name)
        string match -q -- '--*' $name; or set -a form -s (string sub -s 2 -- $name)
    end
    test -z "$argv[4]"; or set -a form -x
    string match -q '*|*' -- $argv[4]; and set -a form -a (string replace -a '|' ' ' -- $argv[4])
    complete $form
end

function __zarvoctl_declare
    command -q zarvoctl; or return
    set -l table (zarvoctl help --plain 2>/dev/null)
    set -l at
    complete -c zarvoctl -f
    for line in $table
        set -l fields (string split \t -- $line)
        set -l verb (string split ' ' -- $fields[1])[1]
        if string match -q -- '-*' $verb
            __zarvoctl_declare_option __fish_use_subcommand $fields
        else if test $verb = $fields[1]
            complete -c zarvoctl -n __fish_use_subcommand -a $verb -d $fields[2]
            __zarvoctl_declare_arguments $verb $fields[3]
            set at "__zarvoctl_at $verb"
            if string match -q '*COMMAND*' $fields[3]
                set -l taking (string match -r -- "^$verb -.*\t.*\t.+" $table | string replace -r '^\S+ (.*?)\t.*' '$1')
                set at "__zarvoctl_before_command $verb $taking"
            end
        else
            __zarvoctl_declare_option $at (string replace -r '^\S+ ' '' -- $fields[1]) $fields[2..]
        end
    end
end

__zarvoctl_declare
