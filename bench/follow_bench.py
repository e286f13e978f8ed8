# SPDX-License-Identifier: MIT
"""follow_bench.py ZKEXPORT - measures `zkexport --follow --every` beside 10,000 stacks, in a /var of its own: for how long it gives
out what is there, how soon an incident comes, and how much memory it takes. Prints JSON."""
import json
import os
import resource
import statistics
import subprocess
import sys
import time

STACKS = 10_000
FOLDER = "/var/adm/zelk/stacks"

if os.environ.get("ZELK_INSIDE") != "yes":
    os.environ["ZELK_INSIDE"] = "yes"
    os.execvp("unshare", ["unshare", "--mount", sys.executable, *sys.argv])

import zelk

subprocess.run(f"mount -t tmpfs none /var && mkdir -p {FOLDER}", shell=True, check=True)
zelk.Recorder("first").record("an incident")
with open(FOLDER + "/first", "rb") as stack:
    image = stack.read()
for number in range(STACKS):
    with open(f"{FOLDER}/s{number}", "wb") as stack:
        stack.write(image)

begun = time.monotonic()
follower = subprocess.Popen([sys.argv[1], "--follow", "--every", "--cursor-file=/var/cursor"], stdout=subprocess.PIPE)
for _ in range(STACKS + 1):
    follower.stdout.readline()
start = time.monotonic() - begun

delays = []
for number in range(0, STACKS, STACKS // 200):
    with zelk.Recorder(f"s{number}") as recorder:
        began = time.monotonic()
        recorder.record("another incident")
        follower.stdout.readline()
        delays.append(1000 * (time.monotonic() - began))
    time.sleep(0.005)
with open(f"/proc/{follower.pid}/status") as status:
    memory = next(int(line.split()[1]) for line in status if line.startswith("VmHWM"))
follower.terminate()
follower.wait()
used = resource.getrusage(resource.RUSAGE_CHILDREN)
print(json.dumps({"start": start, "delay": statistics.median(delays), "longest": max(delays), "memory": memory,
                  "cpu": used.ru_utime + used.ru_stime}))
