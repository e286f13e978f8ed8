# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Completion for bash (with bash-completion): zkview, zkrecord, zkdecode and zkexport.

# Notes a format that is given: "JSON", or "PICTURE" for any other.
_zkview_note_format() {
    if [[ $1 == json ]]; then given+=(JSON); else given+=(PICTURE); fi
}

# Reads a word of letters: adds them to `given`, up to one that takes an argument, which is stored in `awaiting`, and what
# follows it in `value`.
_zkview_read_letters() {
    local word=$1
    value=
    while [[ ${word:=-} != - ]]; do
        given+=("${word:0:2}")
        if [[ " $with_argument " == *" ${word:0:2} "* ]]; then
            awaiting=${word:0:2} value=${word:2}
            return
        fi
        word=-${word:2}
    done
}

# Reads the words up to the cursor. Stores in `given` the options, "STACK" for a name and what _zkview_note_format notes, and
# in `awaiting` the option whose argument the cursor is at; of one that begins behind its letter, `cur` keeps the argument, and
# `before` what stands before it.
_zkview_read_words() {
    local word value before_cursor
    given=() before='' awaiting=''
    for word in "${words[@]:1:cword-1}"; do
        if [[ $awaiting ]]; then
            [[ $awaiting == @(-o|--format) ]] && _zkview_note_format "$word"
            awaiting=
        elif [[ $word == --*=* ]]; then
            given+=("${word%%=*}")
            [[ $word == --format=* ]] && _zkview_note_format "${word#*=}"
        elif [[ $word == --* ]]; then
            given+=("$word")
            [[ " $with_argument " == *" $word "* ]] && awaiting=$word
        elif [[ $word == -?* ]]; then
            _zkview_read_letters "$word"
            [[ $awaiting == -o && $value ]] && _zkview_note_format "$value"
            [[ $value ]] && awaiting=
        else
            given+=(STACK)
        fi
    done
    if [[ ! $awaiting && $cur == -[!-]?* && $split == false ]]; then
        before_cursor=("${given[@]}")
        _zkview_read_letters "$cur"
        if [[ $value ]]; then
            before=${cur%"$value"} cur=$value
        else
            given=("${before_cursor[@]}") awaiting=
        fi
    fi
}

# Whether the option may be given beside what is given: nothing of a set that it is in, and nothing that goes alone.
_zkview_may_give() {
    local option=$1 set other
    [[ ${#given[@]} -eq 0 ]] || [[ " $alone " != *" $option "* ]] || return 1
    for other in "${given[@]}"; do
        [[ " $alone " != *" $other "* ]] || return 1
        [[ $other != "$option" || $option != STACK ]] || continue # there may be several
        for set in "${sets[@]}"; do
            [[ " $set " == *" $option "* && " $set " == *" $other "* ]] && return 1
        done
    done
    return 0
}

# Offers the words given that begin like the one at the cursor.
_zkview_offer() {
    mapfile -t COMPREPLY < <(compgen -W "$*" -- "$cur")
}

_zkview_offer_stacks() {
    if [[ $cur == /* ]]; then
        _filedir
    else
        compopt -o filenames
        mapfile -t COMPREPLY < <(cd /var/adm/zelk/stacks 2>/dev/null && compgen -f -- "$cur")
    fi
}

_zkview_offer_formats() {
    local format formats=()
    for format in $(command zkexport --help 2>/dev/null | sed -n 's/.*FORMAT:{\(.*\)}.*/\1/p' | tr , ' '); do
        [[ $format == json ]] && _zkview_may_give JSON && formats+=("$format")
        [[ $format != json ]] && _zkview_may_give PICTURE && formats+=("$format")
    done
    _zkview_offer "${formats[@]}"
}

_zkview_offer_options() {
    local set option options=()
    for set in "${sets[@]}" "$alone"; do
        for option in $set; do
            [[ $option == -* && " ${options[*]} " != *" $option "* ]] && _zkview_may_give "$option" && options+=("$option")
        done
    done
    _zkview_offer "${options[@]}"
}

_zkview() {
    local cur prev words cword split given awaiting before
    _init_completion -s -n : || return

    # Of each set one option may be given.
    local sets with_argument alone='-h --help --version' command=${words[0]##*/}
    case $command in
        zkview)
            sets=('-a' '-d -p -r -i' '-f -s' '-i -s')
            with_argument='-f -s' alone='-h'
            ;;
        zkrecord)
            sets=('-c --cause' '-d --details' '-D --dump' '-p --process' '--pid' '--file' '--line' '--file-version'
                '--product' '-m --message' '-C --create' '-t --text' '-q --quiet')
            with_argument='-c --cause -d --details -D --dump -p --process --pid --file --line --file-version --product
                -m --message'
            with_argument=${with_argument//$'\n'/ }
            ;;
        zkdecode)
            sets=('-j --json')
            with_argument=
            ;;
        zkexport)
            sets=('-o --format' '-i --id' '-e --every --input STACK' '-f --follow -i --id' '-f --follow --chain'
                '-c --cursor-file -i --id' '-c --cursor-file --chain'
                '--max-stack PICTURE' '--max-stack -i --id' '--max-stack --chain' '--max-stack --input'
                '--max-stack -n --lines' '-f --follow PICTURE' '-f --follow --input' '-c --cursor-file PICTURE' '-c --cursor-file --input' '--since'
                '--until' '--process' '--product' '--node' '--grep' '-n --lines -f --follow' '-n --lines -c --cursor-file'
                '--output' '--color')
            with_argument='-o --format -i --id -c --cursor-file --since --until --process --product --node --grep -n --lines
                --output --color --max-stack'
            with_argument=${with_argument//$'\n'/ }
            ;;
    esac
    _zkview_read_words
    [[ $split == true ]] && awaiting=$prev
    # The chain of an incident is looked for where another option says.
    [[ $command != zkexport || " ${given[*]} " == *' --chain '* ]] || sets+=('-i --id -e --every --input STACK')

    case $command:$awaiting in
        zkview:-s) _zkview_offer_stacks ;;
        zkrecord:-D | zkrecord:--dump | zkrecord:--file | zkexport:-c | zkexport:--cursor-file | zkexport:--output) _filedir ;;
        zkexport:--color) _zkview_offer always auto never ;;
        zkexport:-o | zkexport:--format) _zkview_offer_formats ;;
        *:-*) ;; # text, a number or an Error ID
        zkrecord: | zkexport:)
            if [[ $command == zkrecord && " ${given[*]} " == *' STACK '* ]]; then
                : # what follows is recorded
            elif [[ $cur == -* ]]; then
                _zkview_offer_options
            elif _zkview_may_give STACK; then
                _zkview_offer_stacks
            fi
            ;;
        *) [[ $cur != -* && $command != zkview ]] || _zkview_offer_options ;;
    esac
    COMPREPLY=("${COMPREPLY[@]/#/$before}")
    __ltrim_colon_completions "$before$cur"
}

complete -F _zkview zkview zkrecord zkdecode zkexport
