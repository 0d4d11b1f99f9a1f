# fish completion for tessctl(1)

set -l commands send console serve listen check ping status list who metrics watch top close com2 reset stop fleet help

function __tessctl_names
    # The processes that are registered now.
    tessctl list --names 2>/dev/null
end

function __tessctl_program
    # Behind "--" stands the program that serve runs, with its arguments: a command line of its own.
    set -l words (commandline -opc)
    set -l dashes (contains -i -- -- $words)
    and __fish_complete_subcommand --commandline $words[(math $dashes + 1)..] (commandline -ct)
end

function __tessctl_ports
    # Those in front of the last comma stay.
    set -l before (string match -r '^.*,' -- (commandline -ct | string replace -r '^--ports=' ''))
    printf "$before%s\n" com2 telnet xcp ipc
end

complete -c tessctl -f
complete -c tessctl -s h -l help -d 'Show help'
complete -c tessctl -s V -l version -d 'Show the version'
complete -c tessctl -s H -l host -x -a '(__fish_complete_user_at_hosts)' -d 'Run there, over ssh'

set -l none "not __fish_seen_subcommand_from $commands"
complete -c tessctl -n $none -a send -d 'Send command lines and print the answers'
complete -c tessctl -n $none -a console -d 'Hold a dialogue at the terminal'
complete -c tessctl -n $none -a serve -d 'Register, and answer each command with what a program prints'
complete -c tessctl -n $none -a listen -d 'Register, and print every record that arrives'
complete -c tessctl -n $none -a check -d 'Say what works from here, port by port'
complete -c tessctl -n $none -a ping -d 'Say whether one port works'
complete -c tessctl -n $none -a status -d 'Show what tessd is doing'
complete -c tessctl -n $none -a list -d 'Show the registered processes'
complete -c tessctl -n $none -a who -d 'Show the connections'
complete -c tessctl -n $none -a metrics -d 'Print all numbers as OpenMetrics text'
complete -c tessctl -n $none -a watch -d 'Print what happens, as it happens'
complete -c tessctl -n $none -a top -d 'Show rates, processes and clients, again and again'
complete -c tessctl -n $none -a close -d 'Close all connections to tessd'
complete -c tessctl -n $none -a com2 -d 'Write a text to the serial line'
complete -c tessctl -n $none -a reset -d 'Restart the device'
complete -c tessctl -n $none -a stop -d 'End tessd'
complete -c tessctl -n $none -a fleet -d 'Do something with many devices, through a broker'
complete -c tessctl -n $none -a help -d 'Show the help of a command'

set -l in_fleet '__fish_seen_subcommand_from fleet'
set -l to_send "__fish_seen_subcommand_from send; and not $in_fleet"
set -l to_sockets "__fish_seen_subcommand_from send console; and not $in_fleet"
set -l registering '__fish_seen_subcommand_from serve listen'
complete -c tessctl -n $to_sockets -s p -l port -x -a 'ipc xcp' -d 'Socket to use'
complete -c tessctl -n $to_send -l tag -x -d 'Tag that goes with the lines'
complete -c tessctl -n $to_send -s w -l wait -x -d 'How long to wait for each answer'
complete -c tessctl -n $to_send -l linger -x -d 'How long to go on printing'
complete -c tessctl -n $to_send -l each -d 'Send the commands of a line one by one'
complete -c tessctl -n $to_send -l timestamps -d 'Print the time, too'
complete -c tessctl -n $to_send -a '(__tessctl_names | string replace -r "^" s3.)'
complete -c tessctl -n '__fish_seen_subcommand_from send check status list who metrics watch top' -l json -d 'As JSON'
complete -c tessctl -n $registering -l ports -x -a '(__tessctl_ports)' -d 'Ports whose commands are wanted'
complete -c tessctl -n $registering -l address -x -d 'Queue address'
complete -c tessctl -n '__fish_seen_subcommand_from serve' -l timeout -x -d 'How long the program may run'
complete -c tessctl -n '__fish_seen_subcommand_from serve; and contains -- -- (commandline -opc)' -a '(__tessctl_program)'
complete -c tessctl -n '__fish_seen_subcommand_from listen' -l take-over -d 'Take the commands of another tessctl'
complete -c tessctl -n '__fish_seen_subcommand_from listen' -l raw -d 'Print whole records in hexadecimal'
complete -c tessctl -n '__fish_seen_subcommand_from listen' -l count -x -d 'End after so many records'
complete -c tessctl -n '__fish_seen_subcommand_from listen' -a '(__tessctl_names)'
complete -c tessctl -n '__fish_seen_subcommand_from list' -l names -d 'The names only, one a line'
complete -c tessctl -n '__fish_seen_subcommand_from watch' -l name -x -a '(__tessctl_names)' -d 'Only this process'
complete -c tessctl -n '__fish_seen_subcommand_from watch' -l port -x -a 'com2 telnet xcp ipc delay' -d 'Only this port'
complete -c tessctl -n '__fish_seen_subcommand_from watch' -l count -x -d 'End after so many lines'
complete -c tessctl -n '__fish_seen_subcommand_from top' -l interval -x -d 'Time between two screens'
complete -c tessctl -n '__fish_seen_subcommand_from top' -l count -x -d 'End after so many screens'
complete -c tessctl -n '__fish_seen_subcommand_from check' -a 'queue daemon ipc xcp telnet com2'
complete -c tessctl -n '__fish_seen_subcommand_from ping' -a 'queue ipc xcp telnet com2'
complete -c tessctl -n '__fish_seen_subcommand_from close' -l telnet -d 'Telnet connections only'
complete -c tessctl -n '__fish_seen_subcommand_from com2' -s n -l no-newline -d 'Without a line end'
complete -c tessctl -n '__fish_seen_subcommand_from reset' -l reinit -x -a '(uname -n)' -d 'Re-initialise the version first'
complete -c tessctl -n '__fish_seen_subcommand_from reset' -l yes -d 'Do not ask'
complete -c tessctl -n '__fish_seen_subcommand_from help' -a "$commands"
complete -c tessctl -n "$in_fleet; and not __fish_seen_subcommand_from send status" -a 'send status'
complete -c tessctl -n "$in_fleet; and __fish_seen_subcommand_from send status" -l group -x -d 'The devices of this group'
complete -c tessctl -n "$in_fleet; and __fish_seen_subcommand_from send status" -s w -l wait -x -d 'How long to wait for all'
complete -c tessctl -n "$in_fleet; and __fish_seen_subcommand_from send status" -l config -r -F -d 'How the broker is reached'
complete -c tessctl -n "$in_fleet; and __fish_seen_subcommand_from send" -l all -d 'All devices'
