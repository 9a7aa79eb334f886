# SPDX-License-Identifier: Apache-2.0
# What fish completes of a kelvanectl command line.

# Whether the words that are no options so far are these, and perhaps more.
function __kelvanectl_is
    set --local words (commandline --tokens-expanded --current-process --cut-at-cursor 2>/dev/null; or commandline -opc)
    set --erase words[1]
    set words (string match --invert -- '-*' $words)
    test (count $words) -ge (count $argv); or return 1
    for index in (seq (count $argv))
        test "$words[$index]" = "$argv[$index]"; or return 1
    end
end

function __kelvanectl_wants_command
    not __kelvanectl_is purge; and not __kelvanectl_is cancel; and not __kelvanectl_is run-daily
    and not __kelvanectl_is purgeable; and not __kelvanectl_is state
end

function __kelvanectl_wants_state_command
    __kelvanectl_is state; or return 1
    for command in get set unset list
        __kelvanectl_is state $command; and return 1
    end
    return 0
end

complete -c kelvanectl -f
complete -c kelvanectl -s h -l help -d 'Show help'
complete -c kelvanectl -n __kelvanectl_wants_command -l version -d 'Show the version'
complete -c kelvanectl -n __kelvanectl_wants_command -a purge -d 'Free bytes on a volume'
complete -c kelvanectl -n __kelvanectl_wants_command -a cancel -d 'Tell the daemon that a purge is not wanted any more'
complete -c kelvanectl -n __kelvanectl_wants_command -a run-daily -d 'Run the daily maintenance now'
complete -c kelvanectl -n __kelvanectl_wants_command -a purgeable -d 'Show what services could free'
complete -c kelvanectl -n __kelvanectl_wants_command -a state -d 'Read and change what clients keep in the daemon'

complete -c kelvanectl -n '__kelvanectl_is purge' -s u -l urgency -x -a '1 2 3 4' -d 'Highest urgency'
complete -c kelvanectl -n '__kelvanectl_is purge' -s t -l timeout -x -d 'Seconds that each pass may take'
complete -c kelvanectl -n '__kelvanectl_is purge' -l token -x -d 'Name of this purge'
complete -c kelvanectl -n '__kelvanectl_is purge' -l single -d 'Send one request'
complete -c kelvanectl -n '__kelvanectl_is purge' -s y -l yes -d 'Do not ask before urgency 4'
complete -c kelvanectl -n '__kelvanectl_is purge' -l json -d 'Print one JSON object'
complete -c kelvanectl -n '__kelvanectl_is purge' -s q -l quiet -d 'Print nothing but errors'
complete -c kelvanectl -n '__kelvanectl_is purge' -a '(__fish_complete_directories)'

complete -c kelvanectl -n '__kelvanectl_is cancel' -s q -l quiet -d 'Print nothing but errors'
complete -c kelvanectl -n '__kelvanectl_is run-daily' -s q -l quiet -d 'Print nothing but errors'

complete -c kelvanectl -n '__kelvanectl_is purgeable' -s u -l urgency -x -a '1 2 3 4' -d 'How urgently'
complete -c kelvanectl -n '__kelvanectl_is purgeable' -l itemized -d 'Ask by the right to itemized figures'
complete -c kelvanectl -n '__kelvanectl_is purgeable' -l json -d 'Print one JSON object'
complete -c kelvanectl -n '__kelvanectl_is purgeable' -a '(__fish_complete_directories)'

complete -c kelvanectl -n __kelvanectl_wants_state_command -a get -d 'Show the value under a key'
complete -c kelvanectl -n __kelvanectl_wants_state_command -a set -d 'Put a value under a key'
complete -c kelvanectl -n __kelvanectl_wants_state_command -a unset -d 'Remove a key and its value'
complete -c kelvanectl -n __kelvanectl_wants_state_command -a list -d 'Show all keys'
complete -c kelvanectl -n '__kelvanectl_is state get' -l json -d 'Print JSON'
complete -c kelvanectl -n '__kelvanectl_is state set' -l string -d 'The value is a string as it stands'
complete -c kelvanectl -n '__kelvanectl_is state list' -l json -d 'Print JSON'
