# SPDX-License-Identifier: MIT
complete -c zkexport -f

# Whether the words before the cursor let that be given, too: a "stack" by name, another "source", "input", an option of
# "lines" alone, a "picture", or an option by its name.
function __zkexport_may -a what
    set -l words (commandline -opc)[2..]
    __zkview_at -o --format -i --id -c --cursor-file; and set -e words[-1]
    argparse o/format= i/id= e/every input f/follow c/cursor-file= h/help version -- $words 2>/dev/null; or return 1
    set -q _flag_help; or set -q _flag_version; and return 1
    switch $what
        case stack
            not set -q _flag_id; and not set -q _flag_every; and not set -q _flag_input
        case source
            __zkexport_may stack; and test (count $argv) -eq 0
        case lines
            not set -q _flag_id; and not set -q _flag_input; and not contains -- "$_flag_format" dot html
        case input
            __zkexport_may source; and __zkexport_may picture; and test "$_flag_format" != json
        case picture
            not set -q _flag_follow; and not set -q _flag_cursor_file
        case '*'
            not set -q _flag_$what
    end
end

function __zkexport_formats
    contains -- --input (commandline -opc); or echo json
    __zkexport_may picture; and printf '%s\n' dot html
end

complete -c zkexport -n '__zkexport_may stack' -a '(__zkview_stacks)'
complete -c zkexport -n '__zkexport_may format; or __zkview_at -o --format' -s o -l format -x -d Format \
    -a '(__zkexport_formats)'
complete -c zkexport -n '__zkexport_may source; and __zkexport_may picture; or __zkview_at -i --id' -s i -l id -x \
    -d 'Only the incident of this Error ID'
complete -c zkexport -n '__zkexport_may source' -s e -l every -d 'All stacks'
complete -c zkexport -n '__zkexport_may input' -l input -d 'Incidents from standard input'
complete -c zkexport -n '__zkexport_may follow; and __zkexport_may lines' -s f -l follow -d 'Go on with new incidents'
complete -c zkexport -n '__zkexport_may cursor_file; and __zkexport_may lines; or __zkview_at -c --cursor-file' \
    -s c -l cursor-file -r -F -d 'Begin behind what was given out'
complete -c zkexport -n 'test (count (commandline -opc)) -eq 1' -s h -l help -d 'Print help'
complete -c zkexport -n 'test (count (commandline -opc)) -eq 1' -l version -d 'Print the version'
