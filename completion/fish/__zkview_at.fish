# SPDX-License-Identifier: MIT
function __zkview_at --description 'Whether the cursor is at the argument of one of these options'
    set -l word (commandline -opc)[-1]
    for option in $argv
        test "$option" = "$word"; and return 0
        # Behind other letters.
        string match -qr -- '^-[A-Za-z]+'(string sub -s 2 -- $option)'$' $word; and return 0
    end
    return 1
end
