# SPDX-License-Identifier: MIT
complete -c zkdecode -f
complete -c zkdecode -n '__fish_not_contain_opt -s j json -s h help version' -s j -l json -d 'Print JSON'
complete -c zkdecode -n 'test (count (commandline -opc)) -eq 1' -s h -l help -d 'Print help'
complete -c zkdecode -n 'test (count (commandline -opc)) -eq 1' -l version -d 'Print the version'
