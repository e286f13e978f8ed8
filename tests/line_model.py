#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Holds which lines zkexport --input takes against a second judge of them: good lines of each kind, with each of their
characters changed, left out and doubled, and with other values in the place of each one.

    tests/line_model.py ZKEXPORT

Exits with 1, and shows the lines, where they differ.
"""
import base64
import datetime
import ipaddress
import itertools
import json
import re
import subprocess
import sys

DIGITS = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
NAMES = {-23: "ZELK_LOCK", -24: "ZELK_FILE_MISSING", -25: "ZELK_NO_ACCESS", -26: "ZELK_FILE_CORRUPT"}
INT32, INT64 = 2**31 - 1, 2**63 - 1
INCIDENT = {
    "stack": "s", "offset": 24, "id": "726md..Wdc/f/iJr/06...1...................", "cause": None, "time": "2007-02-03T09:05:00Z",
    "id_time": "2026-11-25T07:12:34.488814Z", "node": "192.0.2.2", "process": {"name": "p", "id": 100, "parent": -1, "thread": 7},
    "source": {"file": "a.c", "version": "1", "product": "", "line": 12},
    "message": {"catalog": "", "set": 3, "number": 14, "default": "%s",
                "arguments": [{"type": "int", "value": -3}, {"type": "long", "value": 4}, {"type": "long_long", "value": 5},
                              {"type": "double", "value": 1.5}, {"type": "double", "value": "-inf"}, {"type": "string", "value": "x"},
                              {"type": "pointer", "value": "0x1f"}, {"type": "reserved", "value": "0102030405060708"}]},
    "description": "\u00e9", "cut": True, "details": "\ufffd", "details_base64": "/w==",
}
UNNAMED = {**{key: value for key, value in INCIDENT.items() if key not in ("id_time", "cut", "details_base64")}, "id": "x", "cause": "y"}
GAP = {"stack": "s", "gap": True}
DAMAGE = {"stack": "s", "error": {"code": -26, "name": "ZELK_FILE_CORRUPT", "offset": 0, "reason": "why"}}


# ---- The judge ----------------------------------------------------------------------------------------------------------

class Bad(ValueError):
    pass


def need(holds):
    if not holds:
        raise Bad


def members(pairs):
    """An object. Only members that are known may not come twice; what was added is not looked at."""
    known = {"error", "gap", "code", "reason", "type", "value", "value_base64", *INCIDENT, *INCIDENT["process"], *INCIDENT["source"],
             *INCIDENT["message"]}
    known |= {f"{key}_base64" for key in known}
    keys = [key for key, _ in pairs if key in known]
    need(all(key in known or depth_of(value) <= 16 for key, value in pairs))
    need(len(keys) == len(set(keys)) and "\0" not in "".join(value for pair in pairs for value in pair if isinstance(value, str)))
    return dict(pairs)


def depth_of(value):
    parts = value.values() if isinstance(value, dict) else value
    return 1 + max(map(depth_of, parts), default=0) if isinstance(value, (dict, list)) else 0


def refuse_constant(_):
    raise Bad


def text(holder, key):
    """A text, and the bytes that it stands for where it is not UTF-8."""
    value, original = holder.get(key), holder.get(f"{key}_base64")
    need(isinstance(value, str))
    if f"{key}_base64" in holder:
        need(isinstance(original, str))
        data = base64.b64decode(original, validate=True)
        need(base64.b64encode(data).decode() == original and b"\0" not in data and data.decode("utf-8", "replace") == value)
        need("\ufffd" in value and not is_utf8(data))
    return value


def is_utf8(data):
    try:
        data.decode()
        return True
    except UnicodeDecodeError:
        return False


def whole(value, low, high):
    need(type(value) is int and low <= value <= high)


def moment(value):
    need(isinstance(value, str) and re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d{6})?Z", value, re.ASCII))
    return datetime.datetime.fromisoformat(value[:-1])


def moment_of_id(id):
    place = {digit: value for value, digit in enumerate(DIGITS)}
    if id is None or len(id.encode()) != 42 or any(digit not in place for digit in id[:1] + id[7:]):
        return None
    seconds, fraction = (sum(place[digit] << 6 * at for at, digit in enumerate(id[first:last])) for first, last in ((7, 13), (13, 17)))
    if seconds == 0 or fraction > 999999:
        return None
    return datetime.datetime(1970, 1, 1) + datetime.timedelta(seconds=seconds, microseconds=fraction)


def judge_argument(argument):
    need(isinstance(argument, dict))
    kind, value = argument.get("type"), argument.get("value")
    need(isinstance(kind, str))
    if isinstance(value, str):
        patterns = {"double": "-?(inf|nan)", "pointer": "0x[0-9a-f]{1,16}", "reserved": "[0-9a-f]{16}", "unknown": "[0-9a-f]{16}"}
        need(kind == "string" or ("value_base64" not in argument and re.fullmatch(patterns.get(kind, "(?!)"), value)))
        text(argument, "value")
    else:
        need("value_base64" not in argument)
        if kind == "double":
            need(type(value) in (int, float) and abs(value) < 2e308)
        else:
            high = {"int": INT32, "long": INT32, "long_long": INT64}.get(kind)
            need(high is not None)
            whole(value, -high - 1, high)


def judge_incident(line):
    whole(line.get("offset"), 0, INT64)
    for key in ("stack", "description", "details"):
        text(line, key)
    for key in ("id", "cause"):
        need(key in line)
        need(line[key] is None and f"{key}_base64" not in line or 0 < len(text(line, key)) <= 42)
    for part, texts in (("process", ["name"]), ("source", ["file", "version", "product"]), ("message", ["catalog", "default"])):
        need(isinstance(line.get(part), dict))
        for key in texts:
            text(line[part], key)
    for part, numbers in (("process", ["id", "parent", "thread"]), ("source", ["line"]), ("message", ["set", "number"])):
        for key in numbers:
            whole(line[part].get(key), -INT32 - 1, INT32)
    need(isinstance(line["message"].get("arguments"), list))
    for argument in line["message"]["arguments"]:
        judge_argument(argument)
    recorded = moment(line.get("time"))
    need(recorded.microsecond == 0 and abs((recorded - datetime.datetime(1970, 1, 1)).total_seconds() + 0.5) < 2**31)
    need("cut" not in line or line["cut"] is True)
    need("node" not in line or str(ipaddress.ip_address(text(line, "node"))) == line["node"])
    of_id = moment_of_id(line["id"])
    if "id_time" in line:
        need("node" in line and of_id is not None and moment(line["id_time"]) == of_id)
    else:
        need(of_id is None or "node" not in line)


def judge(written):
    try:
        line = json.loads(written, object_pairs_hook=members, parse_constant=refuse_constant)
        need(isinstance(line, dict))
        json.dumps(line, ensure_ascii=False).encode()  # half a pair is no character
        if "gap" in line or "error" in line:
            need(("gap" in line) != ("error" in line) and not set(line) & (set(INCIDENT) - {"stack"}))
            text(line, "stack")
            need(line.get("gap", True) is True)
            if "error" in line:
                error = line["error"]
                need(isinstance(error, dict) and type(error.get("code")) is int and NAMES.get(error["code"]) == error.get("name"))
                need(isinstance(error.get("reason"), str) and error["reason"])
                need("offset" not in error or type(error["offset"]) is int and 0 <= error["offset"] <= INT64)
        else:
            judge_incident(line)
        return True
    except ValueError:
        return False


# ---- The lines ------------------------------------------------------------------------------------------------------------

OTHERS = [
    "null", "nul", "true", "false", "NaN", "[]", "{}", 16 * "[" + 16 * "]", 17 * "[" + 17 * "]", '""',
    "0", "-0", "01", "-01", "+1", "-1", "-", "1.", ".5", "1.5", "1e", "1E+", "1E3", "1e+3", "1.5e-3", "1e400",
    *(str(number) for edge in (INT32, INT64) for number in (edge, edge + 1, -edge - 1, -edge - 2)),
    '"\\u0041"', '"\\u00e9"', '"\\u12"', '"\\u0000"', '"\\ud83d\\ude00"', '"\\uD83D\\uDE00"', '"\\ud800\\udc00"', '"\\udbff\\udfff"',
    '"\\ud83d"', '"\\udc00"', '"\\ud83d\\ud83d"', '"\\/\\b"', '"\\x41"', '"\ufffd"', f'"{42 * "x"}"', f'"{43 * "x"}"',
    '"2038-01-19T03:14:07Z"', '"2038-01-19T03:14:08Z"', '"1901-12-13T20:45:52Z"', '"1901-12-13T20:45:51Z"', '"2007-02-29T00:00:00Z"',
    '"2007-02-03T24:00:00Z"', '"2007-02-03T09:60:00Z"', '"2007-02-03T09:05:60Z"', '"2007-02-03T09:05:00.000000Z"',
    '"192.0.2.002"', '"2001:db8::1"', '"2001:DB8::1"', '"inf"', '"nan"', '"0x0"', f'"0x{17 * "1"}"',
]


def without_or_doubled(write):
    """The line with each member, also of its parts, left out, beside another one, and twice."""
    def parts(holder):
        for key, value in holder.items():
            yield holder, key
            yield from parts(value) if isinstance(value, dict) else ()
    for index, _ in enumerate(parts(json.loads(write()))):
        for what in ("left out", "in front of another", "behind bytes", "behind its own"):
            changed = json.loads(write())
            holder, key = list(parts(changed))[index]
            value = holder[key]
            if what == "left out":
                del holder[key]
            elif what.startswith("behind"):
                holder[f"{key}_base64"] = "/w==" if what == "behind bytes" else base64.b64encode(str(value).encode()).decode()
            else:
                holder["another"] = value
            yield as_written(changed)
    member = r'"\w+":(?:"[^"]*"|-?[\d.]+|null|true)'
    for index, _ in enumerate(re.findall(member, write())):
        line = write()
        found = list(re.finditer(member, line))[index]
        yield line[:found.end()] + "," + line[found.start():]


def as_written(line):
    return json.dumps(line, ensure_ascii=False, separators=(",", ":"))


def changed_lines(write):
    """The line that `write` gives with each change; it is given another number for each of them."""
    numbers, written = itertools.count(), write(0)
    for at, _ in enumerate(written):
        for other in ("", 2 * written[at], " ", "0", "9", "x", "A", "-", ".", '"', "\\", ",", "]", "\t", "\u0080"):
            line = write(next(numbers))
            yield line[:at] + other + line[at + 1:]
    for value in re.finditer(r'(?<=:)("[^"]*"|-?[\d.]+|null|true)', written):
        for other in OTHERS:
            line = write(next(numbers))
            yield line[:value.start()] + other + line[value.end():]
    yield from without_or_doubled(lambda: write(next(numbers)))


def main():
    lines = [line.encode() for each in (INCIDENT, UNNAMED, GAP, DAMAGE) for line in changed_lines(lambda _, each=each: as_written(each))]
    lines += [f'{as_written(INCIDENT)[:-1]},"another":{other}}}'.encode() for other in OTHERS] # which a pipeline may add
    id = INCIDENT["id"]  # with what stands beside the digits in the place of each one
    lines += [as_written({**INCIDENT, "id": id[:at] + other + id[at + 1:]}).encode() for at, other in itertools.product(range(42), "-:@[`{")]
    lines += [as_written({key: value for key, value in INCIDENT.items() if key not in pair}).encode() for pair in itertools.combinations(INCIDENT, 2)]
    lines += [as_written({**UNNAMED, key: "\u00e9" * size}).encode() for key in ("id", "cause") for size in (42, 43)]  # characters, not bytes
    names = [bytes([byte]) for byte in range(1, 256) if byte != 10]
    names += [bytes([lead, second, last, last][:2 + (lead >= 0xe0) + (lead >= 0xf0)]) for lead, second, last in itertools.product(
        b"\xc1\xc2\xdf\xe0\xe1\xec\xed\xee\xef\xf0\xf1\xf3\xf4\xf5", b"\x7f\x80\x8f\x90\x9f\xa0\xbf\xc0", b"\x7f\x80\xbf\xc0")]
    lines += [json.dumps(INCIDENT).encode().replace(b'"p"', b'"' + name + b'"') for name in dict.fromkeys(names)]
    ended = subprocess.run([sys.argv[1], "--input"], input=b"\n".join(lines) + b"\n", env={"ASAN_OPTIONS": "detect_leaks=0"},
                           stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False)
    refused = {int(number) for number in re.findall(rb"line (\d+): it is no incident", ended.stderr)}
    wrong = [(line, number in refused) for number, line in enumerate(lines, 1) if line and judge(line) == (number in refused)]
    for line, is_refused in wrong[:20]:
        print("refused" if is_refused else "taken", line.decode("utf-8", "replace"))
    print(f"{len(lines)} lines, {len(refused)} are refused, {len(wrong)} are judged differently")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
