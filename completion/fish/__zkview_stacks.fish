# SPDX-License-Identifier: MIT
function __zkview_stacks --description 'Stacks by name, or paths'
    set -l word (commandline -ct)
    if string match -q '/*' -- $word
        __fish_complete_path $word
    else
        for file in /var/adm/zelk/stacks/*
            string replace '/var/adm/zelk/stacks/' '' -- $file
        end
    end
end
