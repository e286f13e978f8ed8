# SPDX-License-Identifier: MIT
complete -c zkview -f

# What excludes each other is offered by turns; -h goes alone.
set -l view '__fish_not_contain_opt -s d -s p -s r -s i -s h'
set -l stack '__fish_not_contain_opt -s f -s s -s h'
complete -c zkview -n '__fish_not_contain_opt -s a -s h' -s a -d 'Show records in full'
complete -c zkview -n $view -s d -d 'From the oldest record to the newest'
complete -c zkview -n $view -s p -d 'Group records by process'
complete -c zkview -n $view -s r -d 'Show related incidents together'
complete -c zkview -n "$view; and __fish_not_contain_opt -s s" -s i -d 'Show only the incident of -f'
complete -c zkview -n "$stack; or __zkview_at -f" -s f -x -d 'Report the stack of this Error ID'
complete -c zkview -n "$stack; and __fish_not_contain_opt -s i; or __zkview_at -s" -s s -x -a '(__zkview_stacks)' \
    -d 'Report this stack'
complete -c zkview -n 'test (count (commandline -opc)) -eq 1' -s h -d 'Show help'
