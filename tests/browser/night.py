#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Makes the incidents of a bad night, as lines of JSON for zkexport --input: the same ones on each call.

    tests/browser/night.py [COUNT [KIND]]

KIND is what the incidents are like: "night" (the default) has failures that lead to others on up to three nodes, chatter
that comes again and again, and calm in between; "chain" is one chain of causes, "circle" one that ends where it began,
"hostile" has texts that would do harm in every field, "ages" lies between 1901 and 2106.
"""
import datetime
import json
import random
import sys

DIGITS = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
START = 1795554420  # 2026-11-24 21:07:00 UTC
NODES = ["192.0.2.2", "192.0.2.18", "192.0.2.34"]
HOSTILE = "</bdi></noscript><script>alert(1)</script>&lt;\"'\n<li id=x> \u0007\u001b[2J\u202e\u0600\U0001F600 </ul></details>"

# Process, its number, source file, line, message; "%s" a disk, "%d" a number.
DISK = ("stn_diskmon", 1217, "dm_scan.c", 412, "Disk %1$s: %2$d unreadable sectors.")
HEAT = ("stn_diskmon", 1217, "dm_env.c", 71, "Enclosure of %1$s: fan %2$d has stopped.")
DEGRADED = ("stn_volmgr", 1204, "vol/vm_state.c", 97, "Volume archive is degraded: %1$s has been taken out.")
PAUSED = ("stn_volmgr", 1204, "vol/vm_rebuild.c", 230, "Rebuild on %1$s is paused at %2$d%%.")
MIRROR = ("stn_volmgr", 1204, "vol/vm_mirror.c", 388, "Volume mail is not mirrored: its partner does not answer.")
STOPPED = ("stn_backup", 4410, "bk_run.c", 655, "Backup of volume archive stopped after %2$d GB.")
SNAPSHOT = ("stn_backup", 4410, "bk_snap.c", 118, "Snapshot %2$d of %1$s is older than 14 days.")
ALARM = ("stn_console", 1302, "wc_alarm.c", 52, "Alarm 1004%2$d has been raised: %1$s has failed.")
LOGIN = ("stn_console", 1302, "wc_login.c", 204, "User operator%2$d has been locked out after 5 attempts.")
REFUSED = ("stn_export", 2290, "ex_client.c", 731, "Client 10.0.4.%2$d cannot write to volume archive.")
LATE = ("stn_sync", 3318, "sy_queue.c", 95, "Copy of block %2$d to the partner is late.")


def digits(number, count):
    return "".join(DIGITS[number >> 6 * at & 63] for at in range(count))


def error_id(node, microseconds):
    octets = [int(octet) for octet in node.split(".")]
    address = octets[0] << 24 | octets[1] << 16 | octets[2] << 8 | octets[3]
    seconds, fraction = divmod(microseconds, 10**6)
    return "7" + digits(4711, 6) + digits(seconds, 6) + digits(fraction, 4) + digits(address, 6) + "." * 18 + "."


def utc(microseconds, is_exact):
    moment = datetime.datetime(1970, 1, 1) + datetime.timedelta(microseconds=microseconds)
    return moment.isoformat(timespec="microseconds" if is_exact else "seconds") + "Z"


class Night:
    def __init__(self, count, kind):
        self.random = random.Random(4711)
        self.count, self.kind = count, kind
        self.incidents = []
        self.used = set()

    def is_over(self):
        return len(self.incidents) >= self.count

    def add(self, microseconds, node, what, cause=None, disk=None):
        """Records an incident and returns its Error ID."""
        process, number, file, line, text = what
        name = NODES[node]
        while (name, microseconds) in self.used:
            microseconds += 1
        self.used.add((name, microseconds))
        disk = disk or f"disk{self.random.randrange(1, 25):02}"
        value = self.random.randrange(3, 98)
        arguments = [{"type": "string", "value": disk}, {"type": "int", "value": value}]
        details = self.random.choice(["", f"retries    {value}", f"Scan {value} of enclosure 1\nreplaced   {value} of 2048"])
        incident = {
            "stack": "node.stack",
            "offset": 24 + 340 * len(self.incidents),
            "id": error_id(name, microseconds),
            "cause": cause,
            "time": utc(microseconds, False),
            "id_time": utc(microseconds, True),
            "node": name,
            "process": {"name": process, "id": number + node, "parent": 1, "thread": number + node},
            "source": {"file": file, "version": "1.14", "product": "stn.web" if "wc_" in file else "stn.node", "line": line},
            "message": {"catalog": "", "set": 0, "number": 0, "default": text, "arguments": arguments},
            "description": text.replace("%1$s", disk).replace("%2$d", str(value)).replace("%%", "%"),
            "details": details,
        }
        if not self.is_over():
            self.incidents.append(incident)
        return incident["id"]

    def failure(self, at, node, size):
        """A disk fails, and what stands on it follows, within seconds."""
        pause = lambda most: self.random.randrange(20_000, int(most * 10**6))
        name = f"disk{self.random.randrange(1, 25):02}"
        disk = self.add(at, node, DISK, disk=name)
        heat = self.add(at + pause(2), node, HEAT, disk, name) if self.random.random() < 0.4 else disk
        volume = self.add(at + pause(3) + 2_000_000, node, DEGRADED, disk, name)
        self.add(at + pause(5) + 5_000_000, node, PAUSED, heat, name)
        self.add(at + pause(4) + 5_000_000, node, STOPPED, volume, name)
        self.add(at + pause(6) + 6_000_000, node, ALARM, volume, name)
        partner = (node + 1) % len(NODES)
        mirror = self.add(at + pause(9) + 6_000_000, partner, MIRROR, volume) if self.count > 12 else volume
        for number in range(size):
            self.add(at + 7_000_000 + pause(6 + size / 4), partner if number % 3 == 0 else node, REFUSED, volume)
        if size > 20:
            for number in range(size // 4):
                self.add(at + 9_000_000 + pause(20), partner, LATE, mirror)

    def make(self):
        hour = 3600 * 10**6
        at = START * 10**6
        while not self.is_over():
            if self.kind in ("chain", "circle"):
                cause = self.incidents[-1]["id"] if self.incidents else None
                self.add(at + len(self.incidents) * 50_000, 0, (DISK, DEGRADED, ALARM)[len(self.incidents) % 3], cause)
                continue
            if self.kind == "ages":
                at = int(-2.1e15 + 6.39e15 * len(self.incidents) / max(1, self.count - 1))
                self.add(at, 0, LOGIN)
                self.incidents[-1]["time"] = utc(min(at // 10**6, 2**31 - 1) * 10**6, False)
                if at < 0:
                    del self.incidents[-1]["id_time"], self.incidents[-1]["node"]
                continue
            node = self.random.randrange(len(NODES)) if self.count > 12 else 0
            size = self.random.choice([0, 1, 3, 8, 40 if self.count > 100 else 3]) if self.count > 12 else 0
            self.failure(at, node, size * max(1, self.count // 1000))
            for _ in range(2 + self.random.randrange(4)):
                moment = at + self.random.randrange(-600, 1200) * 10**6
                self.add(moment, self.random.randrange(len(NODES)) if self.count > 12 else 0,
                         self.random.choice([LOGIN, SNAPSHOT, LATE]))
            at += self.random.choice([hour // 9, hour // 3, 2 * hour if self.count <= 1000 else hour // 2])
        if self.kind == "circle":
            self.incidents[0]["cause"] = self.incidents[-1]["id"]
        if self.kind == "hostile":
            self.make_hostile()
        if self.kind == "night" and self.count > 12:
            self.incidents[self.count // 2]["cause"] = error_id("192.0.2.77", at)  # a node that is not here
        self.incidents.sort(key=lambda incident: incident.get("id_time", incident["time"]))

    def make_hostile(self):
        for number, incident in enumerate(self.incidents):
            for part, key in [("process", "name"), ("source", "file"), ("source", "version"), ("source", "product"),
                              ("message", "catalog"), ("message", "default")]:
                incident[part][key] = HOSTILE + str(number % 7)
            for key in ["stack", "description", "details"]:
                incident[key] = HOSTILE + str(number % 7)
            incident["message"]["arguments"] = [{"type": "string", "value": HOSTILE}]
            if number % 3 == 0:
                incident["id"] = "</li>\"'&=" + str(number)
                del incident["id_time"]
            if number % 3 == 1:
                incident["cause"] = "</li>\"'&=" + str(number - 1)


def main():
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 300
    night = Night(count, sys.argv[2] if len(sys.argv) > 2 else "night")
    night.make()
    for incident in night.incidents:
        print(json.dumps(incident, ensure_ascii=False))


main()
