#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Holds what zkexport selects and draws of random incidents against a plain reading of its manual page.

    tests/export_model.py ZKEXPORT [SEED...]

Exits with 1, and says the seed and the command line, where they differ.
"""
import collections
import datetime
import json
import random
import re
import subprocess
import sys

EXPORT, SEEDS = sys.argv[1], sys.argv[2:] or range(12)
chance = random.Random()
DIGITS = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
START = 1795554420  # 2026-11-24 21:07:00 UTC
NODES = ["192.0.2.2", "192.0.2.18"]
ENVIRONMENT = {"TZ": "UTC", "ASAN_OPTIONS": "detect_leaks=0"}  # what a run holds ends with it


def digits(number, count):
    return "".join(DIGITS[number >> 6 * at & 63] for at in range(count))


def make_incident(number, before):
    seconds, node = START + number * chance.choice([1, 1, 2, 4000]), chance.choice([*NODES, None])
    octets = [int(octet) for octet in (node or "0.0.0.0").split(".")]
    address = octets[0] << 24 | octets[1] << 16 | octets[2] << 8 | octets[3]
    id = "7" + digits(number, 6) + digits(seconds, 6) + digits(number, 4) + digits(address, 6) + "." * 19
    time = utc(seconds)
    cause = chance.choice([None, None, chance.choice(before)["id"] if before else "first", f"gone-{chance.randrange(3)}"])
    text = chance.choice(["Disk %1$s is slow", "disk lost", "Volume %1$s\nof node", "Link down"])
    value = f"sd{chance.randrange(3)}"
    incident = {
        "stack": chance.choice("ab"), "offset": 24 + number, "id": id if node else f"id-{number}", "cause": cause, "time": time,
        "id_time": f"{time[:-1]}.{number:06}Z", "node": node,
        "process": {"name": chance.choice(["disk", "volume", "41"]), "id": chance.choice([7, 41]), "parent": 1, "thread": 7},
        "source": {"file": "a.c", "version": "1", "product": chance.choice(["one", "other", ""]), "line": 1},
        "message": {"catalog": "", "set": 0, "number": 0, "default": text, "arguments": [{"type": "string", "value": value}]},
        "description": text.replace("%1$s", value), "details": chance.choice(["", "Slow bus", "bus 3\nof sd1"]),
    }
    if node is None:
        del incident["node"], incident["id_time"]
    return incident


def utc(seconds):
    return datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")


def moment(incident):
    return incident.get("id_time", incident["time"][:-1] + ".000000Z")


def zkexport(lines, *options):
    text = "".join(json.dumps(line) + "\n" for line in lines)
    ended = subprocess.run([EXPORT, "--input", *options], input=text.encode(), env=ENVIRONMENT, stdout=subprocess.PIPE, check=True)
    return ended.stdout.decode()


# ---- Selection ----------------------------------------------------------------------------------------------------------

def choose_selection(lines):
    """Options, and what an incident has to be for each of them."""
    one, other = sorted(chance.choice(lines)["time"] for _ in range(2))
    pattern = chance.choice(["disk", "Disk", "slow|lost", "^bus", "sd1$", r"of\sSD", r"Volume.sd2", "^of node$"])
    cases = 0 if re.search("(?<!\\\\)[A-Z]", pattern) else re.IGNORECASE
    rules = [
        (f"--since={one}", lambda i: i["time"] >= one),
        (f"--until={other}", lambda i: i["time"] < other),
        ("--process=disk", lambda i: i["process"]["name"] == "disk"),
        ("--process=41", lambda i: i["process"]["name"] == "41" or i["process"]["id"] == 41),
        ("--product=other", lambda i: i["source"]["product"] == "other"),
        ("--node=192.0.2.18", lambda i: i.get("node") == "192.0.2.18"),
        (f"--grep={pattern}", lambda i: any(re.search(pattern, i[key], cases | re.MULTILINE) for key in ("description", "details"))),
    ]
    return chance.sample(rules, chance.randrange(1, 4))


def hold_selection(lines):
    rules = choose_selection(lines)
    options = [option for option, _ in rules]
    if len({option.split("=")[0] for option in options}) < len(options):
        return
    wanted = [i["id"] for i in sorted(lines, key=moment) if all(is_good(i) for _, is_good in rules)]
    if chance.random() < 0.3:
        options.append("-n3")
        wanted = wanted[-3:]
    hold(options, "".join(f"{id}\n" for id in wanted), ids_in(zkexport(lines, *options)))


# ---- The tree -------------------------------------------------------------------------------------------------------------

def draw_tree(lines):
    ordered = sorted(lines, key=moment)
    known = {i["id"]: i for i in ordered}
    effects = collections.defaultdict(list)
    for i in ordered:
        effects[i["cause"] if i["cause"] else None].append(i)
    has_nodes = len({i.get("node") for i in ordered if "node" in i} | ({None} if "node" not in ordered[0] else set())) > 1
    drawn, above = [], {"date": None, "node": ""}

    def draw(members, depth, branches, is_last):
        first = members[0]
        date, clock = first["time"][:10], first["time"][11:19]
        line = (date if date != above["date"] else " " * 10) + f" {clock}  "
        above["date"] = date
        line += "".join(branches) + ("" if depth == 0 else "`- " if is_last else "|- ")
        node = first.get("node", "")
        if has_nodes and node and node != above["node"]:
            line += node + " "
            above["node"] = node
        line += f'{first["process"]["name"]}[{first["process"]["id"]}]: ' + first["description"].replace("\n", " ")
        if len(members) > 1:
            date, clock = members[-1]["time"][:10], members[-1]["time"][11:19]
            line += f" ({len(members)} times, last {clock if date == first['time'][:10] else f'{date} {clock}'})"
        drawn.append(line + "  " + first["id"])
        draw_all([e for m in members for e in effects[m["id"]]], depth + 1,
                 branches + ([] if depth == 0 else ["   " if is_last else "|  "]))

    def rows(incidents):
        groups = {}
        for i in sorted(incidents, key=moment):
            key = (i.get("node"), i["process"]["name"], i["process"]["id"], i["message"]["default"], i["cause"])
            groups.setdefault(key, []).append(i)
        return list(groups.values())

    def draw_all(incidents, depth, branches):
        below = rows(incidents)
        for members in below:
            draw(members, depth, branches, members is below[-1])

    first_causes = rows(effects[None])
    missing = [effects[cause] for cause in effects if cause and cause not in known]
    for members in sorted(first_causes + missing, key=lambda members: ordered.index(members[0])):
        if members in missing:
            drawn.append(" " * 21 + f'{members[0]["cause"]} is not recorded here')
            draw_all(members, 1, [])
        else:
            draw(members, 0, [], False)
    return "".join(line + "\n" for line in drawn)


# ---- Chains and pictures ------------------------------------------------------------------------------------------------

def ids_of_chain(lines, id):
    known = {i["id"]: i for i in lines}
    first = id
    while first in known and known[first]["cause"]:
        first = known[first]["cause"]
    wanted, level = {first}, {first}
    while level:
        level = {i["id"] for i in lines if i["cause"] in level}
        wanted |= level
    return "".join(i["id"] + "\n" for i in sorted(lines, key=moment) if i["id"] in wanted)


def boxes_and_arrows(lines):
    """Of the picture for Graphviz: the box of each incident, and what leads to it."""
    nodes_of = collections.defaultdict(set)
    for i in lines:
        nodes_of[i["stack"]] |= {i["node"]} if "node" in i else set()
    facts = []
    for i in lines:
        node = i.get("node") or (min(nodes_of[i["stack"]]) if len(nodes_of[i["stack"]]) == 1 else "")
        facts.append((i["id"], node, i["stack"], f'{i["process"]["name"]} {i["process"]["id"]}'))
        if i["cause"]:
            facts.append((i["cause"], i["id"]))
    has_nodes = len({fact[1] for fact in facts if len(fact) == 4}) > 1
    return sorted(fact if len(fact) == 2 or has_nodes else (fact[0], "", *fact[2:]) for fact in facts)


def drawn_boxes_and_arrows(dot):
    ids, facts, box = {}, [], []
    for line in dot.splitlines():
        if label := re.fullmatch(r' +label="(.*)";', line):
            box = label[1].split(r"\n")
        elif incident := re.fullmatch(r' +(i\d+) \[label=".*", tooltip="(.*)"\];', line):
            ids[incident[1]] = incident[2]
            facts.append((incident[2], *([""] if len(box) == 2 else []), *box))
        elif missing := re.fullmatch(r' +(c\d+) \[label="(.*)\\nnot recorded here", .*', line):
            ids[missing[1]] = missing[2]
        elif arrow := re.fullmatch(" +(.*) -> (.*);", line):
            facts.append((ids[arrow[1]], arrow[2]))
    return sorted(tuple(ids.get(name, name) for name in fact) for fact in facts)


def hold(options, wanted, found):
    if wanted == found:
        return
    print(f"seed {seed}: zkexport --input {' '.join(options)} gives\n{found}instead of\n{wanted}")
    sys.exit(1)


def ids_in(lines):
    return "".join(json.loads(line)["id"] + "\n" for line in lines.splitlines())


for seed in SEEDS:
    chance.seed(int(seed))
    for size in [1, 3, 12, 40]:
        incidents = []
        for count in range(size):
            incidents.append(make_incident(count, incidents))
        chance.shuffle(incidents)
        hold(["-otree"], draw_tree(incidents), zkexport(incidents, "-otree"))
        hold(["-odot"], boxes_and_arrows(incidents), drawn_boxes_and_arrows(zkexport(incidents, "-odot")))
        asked = chance.choice(incidents)
        for id in [asked["id"], asked["cause"] or "gone-1"]:
            if wanted := ids_of_chain(incidents, id):
                hold(["--chain", f"--id={id}"], wanted, ids_in(zkexport(incidents, "--chain", f"--id={id}")))
        for _ in range(4):
            hold_selection(incidents)
