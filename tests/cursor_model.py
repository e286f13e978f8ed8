#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Holds what zkexport gives, run by run and while it follows, of stacks that are recorded in, renamed, replaced, linked and
damaged against a plain reading of its manual page: each incident comes once, and what was lost is told.

    tests/cursor_model.py FOLDER-OF-COMMANDS [SEED...]

Exits with 1, and says the seed and what was done, where they differ.
"""
import collections
import json
import os
import random
import shutil
import struct
import subprocess
import sys
import tempfile
import time

COMMANDS, SEEDS = os.path.abspath(sys.argv[1]), sys.argv[2:] or range(6)
NAMES = ["a", "b", "c"]  # those that zkexport is given
ENVIRONMENT = {"PATH": f"{COMMANDS}:{os.environ['PATH']}", "ASAN_OPTIONS": "detect_leaks=0", "LC_ALL": "C.UTF-8"}
EMPTY_STACK = struct.pack("=iiiiiB3x", 0, 24, 24, 24, 8192, 0).ljust(8192, b"\0")
DAMAGE = b"\xff\xff\xff\xff"
DETAILS = 700 * "x"  # nine such incidents fill a stack
Mark = collections.namedtuple("Mark", "file place")  # the i-node, and what tells the incident that was given last, None for none
UNKNOWN = Mark(0, None)  # of a name whose file went on under another one
chance = random.Random()


def path_of(name):
    return os.path.join(folder, name)


def file_of(name):
    return os.stat(path_of(name)).st_ino if os.path.exists(path_of(name)) else None


def there():
    return [name for name in places if file_of(name)]


def lines_of(*arguments):
    ended = subprocess.run(["zkexport", *arguments], env=ENVIRONMENT, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False)
    return ended.stdout.decode().splitlines()


def is_damage(line):
    return "error" in json.loads(line)


def place_of(line):
    return line[line.index(',"offset":'):]


# ---- What may happen to stacks ------------------------------------------------------------------------------------------

def record(name, count, details=DETAILS):
    for _ in range(count):
        recorded.append(str(len(recorded)))
        subprocess.run(["zkrecord", "-qC", "-d", details, path_of(name), recorded[-1]], env=ENVIRONMENT, check=True)


def record_some(name):
    if not is_damaged(name):
        record(name, chance.choice([1, 1, 2, 12]))


def make(name):
    with open(path_of("new"), "wb") as made:
        made.write(EMPTY_STACK)
    if chance.random() < 0.7:
        record("new", chance.choice([1, 2]))
    os.rename(path_of("new"), path_of(name))


def rename(name):
    done.append("to " + chance.choice(places))
    os.rename(path_of(name), path_of(done[-1][3:]))


def exchange(name):
    other = chance.choice(there())
    done.append(f"with {other}")
    os.rename(path_of(name), path_of("aside"))
    if other != name:
        os.rename(path_of(other), path_of(name))
    os.rename(path_of("aside"), path_of(other))


def remove(name):
    os.unlink(path_of(name))


def link(name):
    missing = [other for other in NAMES if not file_of(other)]
    if missing:
        os.link(path_of(name), path_of(missing[0]))


def copy(name):
    if not is_damaged(name):
        shutil.copy(path_of(name), path_of("new"))
        os.rename(path_of("new"), path_of(name))


def damage_or_repair(name):
    """The length word at the start of the area is that of the oldest incident or, in a stack that is full, of another. Bytes that
    a stack does not use keep it."""
    with open(path_of(name), "r+b") as stack:
        stack.seek(21)
        kept, length = stack.read(3), stack.read(4)
        stack.seek(21)
        stack.write(bytes(3) + kept + b"\0" if length == DAMAGE else length[:3] + DAMAGE if length != bytes(4) else bytes(7))


def is_damaged(name):
    with open(path_of(name), "rb") as stack:
        return stack.read(28).endswith(DAMAGE)


# ---- What a run with a cursor gives ---------------------------------------------------------------------------------------

def move_marks():
    """The marks of files that have got another name go with them."""
    moved = {}
    for name in filter(file_of, NAMES):
        file = file_of(name)
        if marks.get(name, UNKNOWN).file != file:
            left = [other for other in NAMES if other in marks and marks[other].file == file and file_of(other) != file]
            moved.update({name: marks[left[0]]} if left else {})
    for name, mark in moved.items():
        former = marks.get(name, UNKNOWN)
        if former.file == mark.file:
            continue  # it has changed places with one before
        for other in marks:
            if marks[other].file == mark.file and file_of(other) != mark.file:
                marks[other] = former
        marks[name] = mark


def unread_lines(name):
    """What a run gives of a stack. What it holds, and where it is damaged, a run without a cursor says."""
    lines = lines_of(path_of(name))
    told = [line for line in lines if is_damage(line)]
    held = [line for line in lines if not is_damage(line)]
    if file_of(name) is None:
        return told
    mark, places = marks.get(name), [place_of(line) for line in held]
    if mark and mark.place in places:
        held = held[places.index(mark.place) + 1:]
    elif mark and mark.place and mark.file == file_of(name) and told:
        return told  # it may stand behind the damage
    elif mark and held and is_overwritten(name):
        held.insert(0, json.dumps({"stack": path_of(name), "gap": True}, separators=(",", ":")))
    marks[name] = Mark(file_of(name), places[-1] if places else None)
    return held + told


def is_overwritten(name):
    with open(path_of(name), "rb") as stack:
        _, start, _, earliest, _, has_wrapped = struct.unpack("=iiiiiB", stack.read(21))
    return has_wrapped or earliest > start


def hold_runs():
    for _ in range(40):
        work = chance.choice([record_some, record_some, record_some, make, rename, exchange, remove, link, copy, damage_or_repair])
        name = chance.choice(there() or places)
        if not there():
            work = make
        done.append(f"{work.__name__} {name}")
        work(name)
        if chance.random() < 0.6:
            done.append("run")
            move_marks()
            wanted = [line for name in NAMES for line in unread_lines(name)]
            hold("zkexport -c", wanted, lines_of("-c", path_of("cursor"), *map(path_of, NAMES)))


# ---- While it follows -----------------------------------------------------------------------------------------------------

def given():
    return [json.loads(line).get("description") for line in lines_in("out") if "description" in line]


def lines_in(name):
    with open(path_of(name), encoding="utf-8") as lines:
        return lines.read().splitlines()


def begin_to_follow():
    with open(path_of("out"), "ab") as out:
        return subprocess.Popen(["zkexport", "--follow", "-c", path_of("cursor"), *map(path_of, NAMES)],
                                env=ENVIRONMENT, stdout=out, stderr=subprocess.DEVNULL)


def end_following(follower):
    follower.terminate()
    follower.wait()


def hold_following():
    follower = begin_to_follow()
    try:
        for _ in range(25):
            work = chance.choice([record_little, record_little, make, rename, exchange, remove, None])
            names = NAMES if work in (record_little, make) else there()
            name = chance.choice(names or NAMES)
            done.append(f"{work.__name__} {name}" if work else "end, and begin again")
            if work is None:
                end_following(follower)
                follower = begin_to_follow()
            elif names:
                work(name)
            until = time.monotonic() + 60
            while len(given()) < len(recorded) and time.monotonic() < until:
                time.sleep(0.005)
            hold("zkexport --follow", recorded, given())
    finally:
        end_following(follower)


def record_little(name):
    record(name, chance.choice([1, 1, 2]), details="")


def hold(command, wanted, found):
    if wanted != found:
        print(f"seed {seed}: after\n{chr(10).join(done)}\n{command} gives\n{chr(10).join(found)}\ninstead of\n{chr(10).join(wanted)}")
        sys.exit(1)


for seed in SEEDS:
    chance.seed(int(seed))
    for story, places in [(hold_runs, [*NAMES, "elsewhere"]), (hold_following, NAMES)]:
        with tempfile.TemporaryDirectory() as folder:
            recorded, marks, done = [], {}, []
            story()
