# SPDX-License-Identifier: MIT
function __zkview_at --description 'Whether the cursor is at the argument of one of these options'
    set -l words (commandline -opc)
    set -l word $words[-1]
    set -l flags ef # letters that may stand before
    switch $words[1]
        case '*zkview'
            set flags adipr
        case '*zkrecord'
            set flags tq
    end
    for option in $argv
        test "$option" = "$word"; and return 0
        string match -qr -- "^-[$flags]+"(string sub -s 2 -- $option)'$' $word; and return 0
    end
    return 1
end
