# SPDX-License-Identifier: MIT
function __zkview_stacks --description 'Stacks by name, or paths'
    set -l word (commandline -ct | string replace -r '^-[a-z]+/' /) # also behind the letter of an option
    if string match -q '/*' -- $word
        __fish_complete_path $word
    else
        for file in /var/adm/zelk/stacks/*
            string replace '/var/adm/zelk/stacks/' '' -- $file
        end
    end
end
