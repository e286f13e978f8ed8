# SPDX-License-Identifier: MIT
complete -c zkrecord -f

# Whether the cursor is before the stack, where the options end, and the option of that name has not been given.
function __zkrecord_lacks -a option
    argparse -s c/cause= d/details= D/dump= p/process= pid= file= line= file-version= product= m/message= \
        'C/create=?' t/text q/quiet h/help version -- (commandline -opc)[2..] 2>/dev/null
    and test (count $argv) -eq 0
    and not set -q _flag_help
    and not set -q _flag_version
    and not set -q _flag_$option
end

complete -c zkrecord -n '__zkrecord_lacks stack' -a '(__zkview_stacks)'
complete -c zkrecord -n '__zkrecord_lacks cause; or __zkview_at -c --cause' -s c -l cause -x \
    -d 'The incident that caused this one'
complete -c zkrecord -n '__zkrecord_lacks details; or __zkview_at -d --details' -s d -l details -x -d 'Details, - reads them'
complete -c zkrecord -n '__zkrecord_lacks dump; or __zkview_at -D --dump' -s D -l dump -r -F -d 'Preserve a dump file'
complete -c zkrecord -n '__zkrecord_lacks process; or __zkview_at -p --process' -s p -l process -x -d 'Name of the process'
complete -c zkrecord -n '__zkrecord_lacks pid; or __zkview_at --pid' -l pid -x -d 'ID of the process'
complete -c zkrecord -n '__zkrecord_lacks file; or __zkview_at --file' -l file -r -F -d 'Source file'
complete -c zkrecord -n '__zkrecord_lacks line; or __zkview_at --line' -l line -x -d 'Line in the source file'
complete -c zkrecord -n '__zkrecord_lacks file_version; or __zkview_at --file-version' -l file-version -x \
    -d 'Version of the source file'
complete -c zkrecord -n '__zkrecord_lacks product; or __zkview_at --product' -l product -x -d 'Product'
complete -c zkrecord -n '__zkrecord_lacks message; or __zkview_at -m --message' -s m -l message -x \
    -d 'Message of a catalog, CATALOG:SET:NUMBER'
complete -c zkrecord -n '__zkrecord_lacks create' -s C -l create -d 'Make the stack first'
complete -c zkrecord -n '__zkrecord_lacks text' -s t -l text -d 'FORMAT is a plain text'
complete -c zkrecord -n '__zkrecord_lacks quiet' -s q -l quiet -d 'Print no Error ID'
complete -c zkrecord -n 'test (count (commandline -opc)) -eq 1' -s h -l help -d 'Print help'
complete -c zkrecord -n 'test (count (commandline -opc)) -eq 1' -l version -d 'Print the version'
