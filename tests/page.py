#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Runs the commands that pages show, and compares what they print with what the pages show.

A command is an indented line that begins with "$ "; the indented lines behind it are its output, "..."
stands for any lines. A comment "<!-- $ ... -->" is a command that prepares what the page takes as given. What differs from run to
run (times, process numbers, addresses) is not compared. An Error ID may be another one, but where the page shows the same
ID again, the same one must come again; commands get the one that came.

    tests/page.py FOLDER-OF-COMMANDS PAGE     in an empty folder, in a mount namespace with nothing else in /var
"""
import difflib
import os
import re
import subprocess
import sys

ID = re.compile(r"(?<![\w./])[0-9./][\w./]{40}[./](?![\w./])")
CHANGING = re.compile(
    r"\d{4}-\d\d-\d\d[T ]\d\d:\d\d:\d\d(\.\d+)?"
    r"|(Mon|Tue|Wed|Thu|Fri|Sat|Sun) \w{3} [ \d]\d \d\d:\d\d:\d\d \d{4}"
    r"|^\d{12}(?= )|(?<=^ {11})\d\d:\d\d:\d\d"
    r"|(?<=\"stack\":\")[^\"]*/"
    r"|(?<=Node: )[\d.]+|(?<=\"node\":\")[\d.]+"
    r"|(?<=Process Identifier: )\d+|(?<=Thread Identifier: )\d+"
)
END = "== end of output =="


def sessions(page):
    """Each command of a page, with the text that the page shows as its output."""
    found = []
    shown = None
    for line in open(page, encoding="utf-8"):
        if line.startswith("    $ "):
            shown = []
            found.append((line[6:].rstrip("\n"), shown))
        elif line.startswith("<!-- $ "):
            found.append((line[7:].rstrip().removesuffix(" -->"), []))
            shown = None
        elif shown is not None and (line.startswith("    ") or line == "\n"):
            shown.append(line.removeprefix("    "))
        else:
            shown = None
    return [(command, "".join(lines).rstrip("\n")) for command, lines in found]


def run(shell, command):
    shell.stdin.write(f"{command}\necho '{END}'\n")
    shell.stdin.flush()
    printed = ""
    while not printed.endswith(END + "\n"):
        line = shell.stdout.readline()
        if line == "":
            return printed + "(the shell has ended)"
        printed += line
    return printed.removesuffix(END + "\n").rstrip("\n")


def comparable(text):
    """The text with equal signs for what may differ."""
    lines = [CHANGING.sub("~", line) for line in text.split("\n")]
    return ID.sub("~" * 42, "\n".join(lines))


def agree(shown, printed):
    pieces = [re.escape(piece) for piece in re.split(r"^\.\.\.$", comparable(shown), flags=re.MULTILINE)]
    return re.fullmatch("(?s:.*)".join(pieces), comparable(printed)) is not None


def check(page, shell):
    came = {}  # for each Error ID of the page
    failures = 0
    for command, shown in sessions(page):
        printed = run(shell, ID.sub(lambda known: came.get(known[0], known[0]), command))
        same = agree(shown, printed)
        for on_page, now in zip(ID.findall(shown), ID.findall(printed)):
            same = same and came.setdefault(on_page, now) == now
        if not same:
            failures += 1
            print(f"{page}: {command}")
            print(*difflib.unified_diff(shown.split("\n"), printed.split("\n"), "shown", "printed", lineterm=""), sep="\n")
    return failures


def main():
    if sys.argv[1] != "--in-namespace":
        if subprocess.run(["unshare", "-m", "mount", "-t", "tmpfs", "none", "/var"], check=False).returncode != 0:
            print("skipped: this machine forbids a mount namespace")
            return 77
        return subprocess.run(["unshare", "-m", sys.argv[0], "--in-namespace"] + sys.argv[1:], check=False).returncode

    commands, page = os.path.abspath(sys.argv[2]), os.path.abspath(sys.argv[3])
    subprocess.run(["mount", "-t", "tmpfs", "none", "/var"], check=True)
    os.mkdir("/var/page")
    os.chdir("/var/page")
    environment = {"PATH": commands + ":" + os.environ["PATH"], "TZ": "UTC", "LC_ALL": "C.UTF-8"}
    environment["ASAN_OPTIONS"] = "detect_leaks=0"  # commands leave their memory to the system
    with subprocess.Popen(
        ["bash"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, env=environment
    ) as shell:
        failures = check(page, shell)
        shell.stdin.close()
    return 1 if failures > 0 else 0


if __name__ == "__main__":
    sys.exit(main())
