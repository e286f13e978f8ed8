# SPDX-License-Identifier: MIT
complete -c zkview -f

# Whether the options before the cursor let that one be given, too. What excludes each other is offered by turns; -h goes alone.
function __zkview_may -a option
    set -l words (commandline -opc)[2..]
    __zkview_at -f -s; and set -e words[-1]
    argparse a d p r i h f= s= -- $words 2>/dev/null; or return 1
    set -q _flag_h; and return 1
    switch $option
        case d p r i
            set -q _flag_d; or set -q _flag_p; or set -q _flag_r; or set -q _flag_i; and return 1
        case f s
            set -q _flag_f; or set -q _flag_s; and return 1
    end
    switch $option
        case i
            not set -q _flag_s
        case s
            not set -q _flag_i
        case '*'
            not set -q _flag_$option
    end
end

complete -c zkview -n '__zkview_may a' -s a -d 'Show records in full'
complete -c zkview -n '__zkview_may d' -s d -d 'From the oldest record to the newest'
complete -c zkview -n '__zkview_may p' -s p -d 'Group records by process'
complete -c zkview -n '__zkview_may r' -s r -d 'Show related incidents together'
complete -c zkview -n '__zkview_may i' -s i -d 'Show only the incident of -f'
complete -c zkview -n '__zkview_may f; or __zkview_at -f' -s f -x -d 'Report the stack of this Error ID'
complete -c zkview -n '__zkview_may s; or __zkview_at -s' -s s -x -a '(__zkview_stacks)' -d 'Report this stack'
complete -c zkview -n 'test (count (commandline -opc)) -eq 1' -s h -d 'Print help'
