# SPDX-License-Identifier: MIT
complete -c zkexport -f

# Whether the words before the cursor let that be given, too: a "stack" by name, another "source", the "id" of an incident, an
# option of "json" alone, a "picture", or an option by its name.
function __zkexport_may -a what
    set -l words (commandline -opc)[2..]
    # Of a word whose last letter awaits what is at the cursor, and of the word there, the letters before count.
    if __zkview_at -o --format -i --id -c --cursor-file -n --lines --since --until --process --product --node --grep --output \
            --max-stack --color
        set -l word $words[-1]
        set -e words[-1]
        set -a words (string match -r '^-[ef]+(?=.$)' -- $word)
    end
    set -a words (commandline -ct | string match -r '^-[ef]+(?=[a-z])')
    argparse o/format= i/id= e/every input f/follow c/cursor-file= n/lines= chain since= until= process= product= node= grep= \
        output= max-stack= color= h/help version -- $words 2>/dev/null; or return 1
    set -q _flag_help; or set -q _flag_version; and return 1
    switch $what
        case stack
            set -q _flag_id; and not set -q _flag_chain; and return 1
            not set -q _flag_every; and not set -q _flag_input
        case source
            __zkexport_may stack; and test (count $argv) -eq 0
        case id
            set -q _flag_id; and return 1
            set -q _flag_chain; or __zkexport_may source; and __zkexport_may picture
        case json
            not set -q _flag_id; and not set -q _flag_chain; and not set -q _flag_input; and not set -q _flag_lines
            and contains -- "$_flag_format" '' json
        case input
            __zkexport_may source; and __zkexport_may picture
        case picture
            not set -q _flag_follow; and not set -q _flag_cursor_file; and not set -q _flag_max_stack
        case '*'
            not set -q _flag_$what
    end
end

function __zkexport_formats
    set -l names (command zkexport --help 2>/dev/null | string match -rg 'FORMAT:\{(.*)\}' | string split ,)
    __zkexport_may picture; or set names json
    printf '%s\n' $names
end

complete -c zkexport -n '__zkexport_may stack' -a '(__zkview_stacks)'
complete -c zkexport -n '__zkexport_may format; or __zkview_at -o --format' -s o -l format -x -d Format \
    -a '(__zkexport_formats)'
complete -c zkexport -n '__zkexport_may id; or __zkview_at -i --id' -s i -l id -x \
    -d 'Only the incident of this Error ID'
complete -c zkexport -n '__zkexport_may source' -s e -l every -d 'All stacks'
complete -c zkexport -n '__zkexport_may input' -l input -d 'Incidents from standard input'
complete -c zkexport -n '__zkexport_may follow; and __zkexport_may json' -s f -l follow -d 'Go on with new incidents'
complete -c zkexport -n '__zkexport_may cursor_file; and __zkexport_may json; or __zkview_at -c --cursor-file' \
    -s c -l cursor-file -r -F -d 'Begin behind what was given out'
complete -c zkexport -n '__zkexport_may max_stack; and __zkexport_may json; or __zkview_at --max-stack' -l max-stack -x \
    -d 'Follow no larger stacks'
complete -c zkexport -n '__zkexport_may chain; and __zkexport_may picture' -l chain -d 'The whole chain of --id'
complete -c zkexport -n '__zkexport_may lines; and __zkexport_may picture; or __zkview_at -n --lines' -s n -l lines -x \
    -d 'The newest of those that fit'
for option in since:'From this time on' until:'Before this time' process:'Of this process' product:'Of this product' \
        node:'Recorded on this node' grep:'With this expression'
    set -l parts (string split -m 1 : -- $option)
    complete -c zkexport -n "__zkexport_may $parts[1]; or __zkview_at --$parts[1]" -l $parts[1] -x -d $parts[2]
end
complete -c zkexport -n '__zkexport_may output; or __zkview_at --output' -l output -r -F -d 'Write to a file'
complete -c zkexport -n '__zkexport_may color; or __zkview_at --color' -l color -x -d 'Colours of a tree' -a 'always auto never'
complete -c zkexport -n 'test (count (commandline -opc)) -eq 1' -s h -l help -d 'Print help'
complete -c zkexport -n 'test (count (commandline -opc)) -eq 1' -l version -d 'Print the version'
