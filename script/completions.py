#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Holds what bash, zsh and fish complete against what the commands themselves take.

Options, their values and what goes together are not listed here: the help of each command says its options, and what it would
not refuse beside what is given is to be offered, and nothing else. No option is offered twice, and help goes alone.

    script/completions.py FOLDER     where script/test-completion has installed the commands, with nothing else in /var
"""
import os
import pty
import re
import select
import subprocess
import sys
from functools import lru_cache
from typing import NamedTuple

COMMANDS = ("zkview", "zkrecord", "zkdecode", "zkexport")
MISUSE = {"zkview": (10, 12, 26), "zkrecord": (2,), "zkdecode": (2,), "zkexport": (2,)}
# All that the command needs that is no option; the file is not there, so that nothing is done.
OPERANDS = {"zkview": [], "zkrecord": ["/nowhere/x", "text"], "zkdecode": ["x"], "zkexport": ["/nowhere/x"]}
# A value by what the help calls it; "x" serves for any other.
VALUES = {"CATALOG:SET:NUMBER": "x:1:1", "TIME": "2024-01-01", "ADDRESS": "10.0.0.1", "FILE": "/nowhere/x", "N": "1",
          "BYTES": "2147483647", "[=SIZE]": "16384"}
# Whose value is a file, or a stack. That of another is one of the words that the help lists, or anything.
FILES = ("zkrecord --dump", "zkrecord --file", "zkexport --cursor-file", "zkexport --output")
STACKS = ("zkview -s",)
# What is typed of it, and what is offered for a file, and for a stack.
TYPED = {"": (["nil"], ["day.stack", "night.stack", "two words.stack"]), "ni": (["nil"], ["night.stack"]),
         "/var/adm/ze": (["/var/adm/zelk"], ["/var/adm/zelk"])}
TYPED_FILES = [files for files, _ in TYPED.values()]
# The command lets these through, but its usage does not.
UNWANTED = ("zkview -i -p", "zkview -i -r")
# What no single option shows.
MORE = {
    "zkrecord -tqC -c x -d x -D x -p x -m x --pid=1 --file=x --line=1 --file-version=x --product=x -": [],
    "zkrecord night.stack -": [],
    "zkrecord night.stack ni": [],
    "zkexport day.stack two": ["two words.stack"],
    "zkexport day.stack --chain --i": ["--id"],
}


class Option(NamedTuple):
    names: tuple  # the short one first
    value: str  # what the help calls it, "" for none, "[=...]" for one that may be left out
    words: tuple  # that it may be, none for any


# ---- What the commands take ----------------------------------------------------------------------------------------------


def options_of(command):
    usage = subprocess.run([command, "-h"], stdout=subprocess.PIPE, text=True, check=False).stdout
    if command == "zkview":
        with_value = re.findall(r"(-\w) ZELK_", usage)
        return [Option((name,), "x" * (name in with_value), ()) for name in re.findall(r"^\t (-\w)", usage, re.M)]
    return [
        Option((short, name) if short else (name,), value.partition(":{")[0], tuple(re.findall(r"\w+", value.partition("{")[2])))
        for short, name, value in re.findall(r"^  (?:(-\w),)?(--[\w-]+)(?: (\S+))?", usage, re.M)
    ]


def is_help(option):
    return option.names[-1] in ("--help", "--version", "-h")


def values_of(option):
    return option.words or (VALUES.get(option.value, "x"),)


def writings(option, value):
    """The ways to write an option with its value: apart and attached."""
    for name in option.names:
        if not option.value or option.value.startswith("["):
            yield name
        else:
            yield f"{name} {value}"
        if option.value:
            yield name + ("=" if name.startswith("--") else "") + value


@lru_cache(maxsize=None)
def is_misuse(command, *words):
    """Whether the command refuses these words. Whatever else it would do, it cannot write its output, and ends."""
    output = ["--output=/nowhere/x"] if command == "zkexport" else []
    done = subprocess.run([command, *output, *words], stdin=subprocess.DEVNULL, capture_output=True, check=False)
    return done.returncode in MISUSE[command]


@lru_cache(maxsize=None)
def need_of(command, option, value):
    """The first other option, with a value, without which the command refuses this one; None for none."""
    for other in OPTIONS[command]:
        for more in (None, (other, values_of(other)[0])):
            words = [list(writings(*pair))[-1] for pair in ((option, value), more) if pair]
            if not is_help(other) and (not is_misuse(command, *words) or not is_misuse(command, *words, *OPERANDS[command])):
                return more
    sys.exit(f"{command}: what has {option.names} to be given with?")


def takes(command, *given, has_operands=False):
    """Whether the command takes options, pairs of an option and its value, as they are or with what one of them needs."""
    for more in {None, *(need_of(command, *pair) for pair in given)}:
        if more and more[0] in dict(given):
            continue  # it would be another value of it
        words = [list(writings(*pair))[-1] for pair in (*given, more) if pair]
        if not has_operands and not is_misuse(command, *words) or not is_misuse(command, *words, *OPERANDS[command]):
            return True
    return False


def may_stand_beside(command, option, other):
    """Whether an option is to be offered behind another, where the command takes them."""
    pair = " ".join([command, *sorted((option.names[0], other.names[0]))])
    return option != other and not is_help(option) and not is_help(other) and pair not in UNWANTED


# ---- What is to be offered -----------------------------------------------------------------------------------------------


def cases_behind(command, *given):
    """Behind options, of which the last is written in each way: what is typed, what of the last word stands before what is
    offered, and that."""
    fitting = {
        option: [value for value in values_of(option) if all(may_stand_beside(command, option, other) for other, _ in given)
                 and (not given or takes(command, *given, (option, value)))] for option in OPTIONS[command]
    }
    takes_stack = command in ("zkrecord", "zkexport") and takes(command, *given, has_operands=True)
    takes_stack = takes_stack and not any(is_help(option) for option, _ in given)
    before = [command, *(list(writings(*pair))[-1] for pair in given[:-1])]
    for last in writings(*given[-1]) if given else [""]:
        line = " ".join([*before, last]).rstrip()
        yield f"{line} -", "", [name for option, values in fitting.items() if values for name in option.names]
        yield f"{line} ni", "", ["night.stack"] if takes_stack else []
        for option, values in fitting.items():
            if option.words and values:
                yield f"{line} {option.names[-1]}=", f"{option.names[-1]}=", values


def cases_of_value(command, option):
    """The same of the value of an option, in each way of writing it, also behind any other letter."""
    stems = {name + "=" * name.startswith("--"): values_of(option) for name in option.names}
    for flag in OPTIONS[command]:
        if flag.value or len(flag.names[0]) != 2 or len(option.names[0]) != 2 or not may_stand_beside(command, flag, option):
            continue
        stems[flag.names[0] + option.names[0][1]] = [
            value for value in values_of(option) if takes(command, (flag, ""), (option, value))]
    if not option.value.startswith("["):
        stems.update({f"{stem.rstrip('=')} ": values for stem, values in stems.items()})
    named = f"{command} {option.names[-1]}"
    for stem, values in stems.items():
        for typed, (files, stacks) in {**TYPED, **{word[0]: ([], []) for word in option.words}}.items():
            offered = files if named in FILES else stacks if named in STACKS else []
            offered = offered or [word for word in option.words if word in values and word.startswith(typed)]
            if values and (typed or not stem[-1].isalpha()):  # after a letter nothing says that a value begins
                yield f"{command} {stem}{typed}", stem if stem[-1] != " " else "", offered


def all_cases():
    for command in COMMANDS:
        yield from cases_behind(command)
        for option in OPTIONS[command]:
            for value in values_of(option):
                yield from cases_behind(command, (option, value))
                need = need_of(command, option, value)
                if need:
                    yield from cases_behind(command, need, (option, value))
            if option.value:
                yield from cases_of_value(command, option)
    taken = [option for option in OPTIONS["zkexport"] if not is_help(option)
             and takes("zkexport", (option, values_of(option)[0]), has_operands=True)]
    yield "zkexport day.stack -", "", [name for option in taken for name in option.names]
    for typed, offered in MORE.items():
        yield typed, "", offered


# ---- What is offered -----------------------------------------------------------------------------------------------------


def ask_at_terminal(shell, environment, lines):
    """Types each line at a terminal, has all that is offered inserted, and runs it: a routine of the command's name gives the
    words."""
    answers = os.path.join(WORK, "answers")
    if not os.path.exists(answers):
        os.mkfifo(answers)
    pipe = os.open(answers, os.O_RDWR)
    child, terminal = pty.fork()
    if child == 0:
        os.execvpe(shell[0], shell, {**os.environ, **environment, "answers": answers})
    for line in lines:
        os.write(terminal, f"{line}\033*\r".encode())
        got = shown = b""
        while not got.endswith(b"\0END\0"):
            ready = select.select([pipe, terminal], [], [], 60)[0]
            if not ready:
                sys.exit(f"{shell[0]}: no answer to: {line}\n{shown.decode(errors='replace')}")
            if terminal in ready:
                shown += os.read(terminal, 4096)
            if pipe in ready:
                got += os.read(pipe, 4096)
        words = got.decode().split("\0")[len(line.split(" ")) - 2 : -2]
        yield [] if words == line.split(" ")[-1:] else words  # as it was typed
    os.close(terminal)  # which ends the shell
    os.close(pipe)
    os.waitpid(child, 0)


def start_fish(lines):
    """Has fish complete the lines, which takes it a while; it writes an empty line behind what it offers for each."""
    asked = f"""
        set -p fish_complete_path {WORK}/share/fish/vendor_completions.d
        set -p fish_function_path {WORK}/share/fish/vendor_functions.d
        for line in $argv; complete -C $line; echo; end >{WORK}/fish"""
    return subprocess.Popen(["fish", "--private", "-c", asked, *lines])


def answers_of_fish(fish):
    fish.wait()
    answer = []
    for line in open(f"{WORK}/fish", encoding="utf-8").read().splitlines():
        if line:
            answer.append(line)
        else:
            yield answer
            answer = []


def compare(shell, cases, answers):
    """The number of lines that are completed otherwise."""
    wrong = 0
    for (line, stem, offered), answer in zip(cases, answers, strict=True):
        if shell == "fish" and re.match("-[a-zA-Z]", stem) and not line.startswith("zkview") and offered in TYPED_FILES:
            continue  # it completes no files behind a letter
        got = sorted(word.partition("\t")[0].removeprefix(stem).rstrip("=/") for word in answer if word.strip("-"))
        if got != sorted(offered):
            print(f"{shell}: {line}: offers {got} in place of {sorted(offered)}", file=sys.stderr)
            wrong += 1
    return wrong


def compare_meanings(fish_answers):
    """The number of commands with options whose meaning zsh shows otherwise than fish, which begins with a capital letter."""
    asked = "CURRENT=2 words=($1) service=$1; _arguments() { print -rl -- $@ }; . $2"
    wrong = 0
    for command in COMMANDS:
        shown = subprocess.run(["zsh", "-fc", asked, "", command, f"{WORK}/share/zsh/site-functions/_zkview"],
                               stdout=subprocess.PIPE, text=True, check=True).stdout
        in_zsh = dict(re.findall(r"^(?:\(.*?\))?(--?[\w-]*\w)[-+=]*\[(.*?)\]", shown, re.M))
        in_fish = dict(answer.split("\t") for answer in fish_answers[LINES.index(f"{command} -")])
        if {name: meaning[0].upper() + meaning[1:] for name, meaning in in_zsh.items()} != in_fish:
            print(f"zsh: {command} -: shows {in_zsh}, fish {in_fish}", file=sys.stderr)
            wrong += 1
    return wrong


WORK = sys.argv[1]
OPTIONS = {command: options_of(command) for command in COMMANDS}
CASES = list(all_cases())
LINES = [line for line, _, _ in CASES]
FISH = start_fish(LINES)
WRONG = compare("bash", CASES, ask_at_terminal(["bash", "--rcfile", f"{WORK}/bashrc"], {}, LINES))
WRONG += compare("zsh", CASES, ask_at_terminal(["zsh"], {"ZDOTDIR": WORK}, LINES))
IN_FISH = list(answers_of_fish(FISH))
WRONG += compare("fish", CASES, IN_FISH) + compare_meanings(IN_FISH)
print(f"{len(CASES)} lines completed")
sys.exit(WRONG != 0)
