# SPDX-License-Identifier: MIT
"""Runs what script/bench measures and prints the table of BENCHMARKS.md. The argument is the folder of the build."""

import datetime
import json
import os
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile

build = sys.argv[1]
folder = tempfile.mkdtemp(prefix="zkview-bench-")
# Copies, as installed: what a linker has just written lies in the page cache in small pieces, and starts a tenth slower.
zkview, zkexport = (shutil.copy(f"{build}/bin/{name}", folder) for name in ("zkview", "zkexport"))
environment = {"PATH": os.environ["PATH"], "LC_ALL": "C", "TZ": "UTC"}
RECORDS = 100000
PYTHON = {"LD_LIBRARY_PATH": build, "PYTHONPATH": "python", "PYTHONDONTWRITEBYTECODE": "1"}  # for the package


def output_of(command):
    return subprocess.run(command, check=True, capture_output=True, text=True, env=environment).stdout


def routines():
    """CPU time of each routine in nanoseconds."""
    report = output_of([build + "/bench/library_bench", "--benchmark_format=json", "--benchmark_min_time=0.5"])
    return {row["name"]: row["cpu_time"] for row in json.loads(report)["benchmarks"]}


def processes(commands, runs, rounds):
    """Median wall time of each command line in milliseconds, all pinned to one CPU, for each of several rounds."""
    result = folder + "/times.json"
    times = []
    for _ in range(rounds):
        output_of(["taskset", "-c", "0", "hyperfine", "-N", "--style=none", "--warmup=20", f"--runs={runs}",
                   "--export-json", result, *commands])
        with open(result) as report:
            times.append([1000 * row["median"] for row in json.load(report)["results"]])
    return times


def ratio(times, one, other):
    """Median ratio of two commands over the rounds: a machine that slows down meanwhile slows both down."""
    return statistics.median(of_round[one] / of_round[other] for of_round in times)


def system_calls(command):
    counted = subprocess.run(["strace", "-qq", "-f", "-o", folder + "/calls", *command.split()], check=True,
                             stdout=subprocess.DEVNULL, env=environment)
    with open(folder + "/calls") as calls:
        return sum(1 for _ in calls) if counted.returncode == 0 else None


def peak_memory(command):
    """Largest resident size in KiB."""
    subprocess.run(["time", "-f", "%M", "-o", folder + "/memory", *command.split()], check=True,
                   stdout=subprocess.DEVNULL, env=environment)
    with open(folder + "/memory") as memory:
        return int(memory.read())


def write_journal(path):
    """A journal of 10,000 entries like the records of `strangers`. False where there is nothing to make it with."""
    writer = "/lib/systemd/systemd-journal-remote"
    if not os.path.exists(writer):
        return False
    fields = ["_BOOT_ID=0f2a3c4d5e6f708192a3b4c5d6e7f801", "_HOSTNAME=node7", "PRIORITY=3", "SYSLOG_FACILITY=3",
              "SYSLOG_IDENTIFIER=stn_diskmon", "_TRANSPORT=syslog", "_UID=0", "_GID=0", "_COMM=stn_diskmon",
              "_EXE=/usr/sbin/stn_diskmon", "_SYSTEMD_UNIT=stn-diskmon.service", "CODE_FILE=/usr/src/stn/disk.c",
              "CODE_LINE=97", "MESSAGE=disk07: 85"]
    entries = ("\n".join([f"__REALTIME_TIMESTAMP={1790000000000000 + 7000000 * number}",
                          f"__MONOTONIC_TIMESTAMP={1000000 + 7000 * number}", f"_PID={1 + number}", *fields])
               for number in range(10_000))
    subprocess.run([writer, "-o", path, "-"], input="\n\n".join(entries) + "\n\n", text=True, check=True,
                   capture_output=True)
    return True


def exports():
    """How fast incidents are given to others."""
    page = processes([f"{zkexport} --format=html {folder}/full"], runs=100, rounds=1)[0][0]
    row("`zkexport --format=html` of a full stack", "", f"{page:.1f} ms", "20 ms")
    if write_journal(folder + "/entries.journal"):
        times = processes([f"{zkexport} {folder}/strangers", f"journalctl --file={folder}/entries.journal -o json"],
                          runs=5, rounds=5)
        row("10,000 records as json", "`journalctl -o json` of 10,000 entries", f"{ratio(times, 0, 1):.2f}", "0.2")
    times = processes([f"{zkexport} --format=tree {folder}/full", f"{zkview} -r -s {folder}/full"], runs=300, rounds=15)
    row("`zkexport --format=tree` of a full stack", "`zkview -r` of it", f"{ratio(times, 0, 1):.2f}", "1.2")
    with open(folder + "/lines", "w") as lines:
        subprocess.run([zkexport, folder + "/strangers"], check=True, stdout=lines, env=environment)
    times = processes([f"sh -c '{zkexport} --input --process=7 <{folder}/lines'",
                       f"jq -c 'select(.process.id == 7)' {folder}/lines"], runs=5, rounds=5)
    row("a selection of 10,000 lines by `zkexport --input`", "the same by `jq`", f"{ratio(times, 0, 1):.2f}", "0.2")


def following():
    """How `zkexport --follow --every` does beside 10,000 stacks. Only root can have a /var for that."""
    command = ["/usr/bin/python3", "bench/follow_bench.py", zkexport]
    report = subprocess.run(command, capture_output=True, text=True, env={**environment, **PYTHON}, check=False)
    if report.returncode != 0:
        return
    found = json.loads(report.stdout)
    row("`zkexport --follow --every` beside 10,000 stacks: until all they hold is given out", "", f"{found['start']:.2f} s", "")
    row("until an incident is given out, median and longest of 200", "", f"{found['delay']:.1f} ms, {found['longest']:.0f} ms", "")
    row("its peak memory, and processor time for all that", "", f"{found['memory']} KiB, {found['cpu']:.2f} s", "")


def from_python(incident):
    """How fast Python records, beside the C call and the handler that Python has."""
    report = subprocess.run(["/usr/bin/python3", "bench/python_bench.py"], check=True, capture_output=True, text=True,
                            env={**environment, **PYTHON}).stdout
    nanoseconds = json.loads(report)
    row("`record` of `zelk`, the Python package", "an incident with an open recorder",
        f"{nanoseconds['record'] / incident:.2f}", "5")
    for name, other, goal in [("SysLogHandler as an incident", "with time, process, logger, level and place too", "1.5"),
                              ("SysLogHandler", "the message alone", "1.5")]:
        row("a line logged by `zelk.Handler`", f"by Python's `SysLogHandler`, {other}",
            f"{nanoseconds['Handler'] / nanoseconds[name]:.2f}", goal)


def row(what, against, measured, goal):
    print(f"| {what} | {against} | {measured} | {goal} |")


def main():
    subprocess.run([build + "/bench/make_inputs", folder], check=True)
    print(f"{datetime.date.today()}, {platform.machine()}, {os.cpu_count()} CPUs, Linux {platform.release()}\n")
    row("what", "against", "measured", "goal")
    row("---", "---", "---", "---")

    full = folder + "/full"
    views = ["-d", "-r", "-p", "-a -d"]
    commands = [f"{zkview} {view} -s {full}" for view in views] + [f"cat {full}"]
    times = processes(commands, runs=300, rounds=15)
    for column, view in enumerate(views):
        row(f"`zkview {view}` of a full stack", "`cat` of it", f"{ratio(times, column, len(views)):.2f}",
            "1.05" if "-a" in view else "0.90")
    row("system calls of `zkview -d`", "those of `cat`",
        f"{system_calls(commands[0]) - system_calls(commands[-1]):+d}", "+10")
    row("peak memory of `zkview -d`", "that of `cat`",
        f"{peak_memory(commands[0])} KiB, {peak_memory(commands[-1])} KiB", "")

    logins = folder + "/logins"
    commands = [f"{zkview} -d -s {folder}/many", f"{zkview} -a -d -s {folder}/many", f"utmpdump {logins}"]
    others = {"last": f"last -f {logins}", "dmesg": f"dmesg -F {folder}/messages"}
    others = {name: command for name, command in others.items() if shutil.which(name)}
    commands += others.values()
    times = processes(commands, runs=5, rounds=5)
    row(f"a record of {RECORDS}, `-d`", "an entry of `utmpdump`", f"{ratio(times, 0, 2):.2f}", "0.7")
    row(f"a record of {RECORDS}, `-a -d`", "an entry of `utmpdump`", f"{ratio(times, 1, 2):.2f}", "1.3")
    for column, name in enumerate(others, start=3):
        row(f"a record of {RECORDS}, `-d`", f"an entry of `{name}`", f"{ratio(times, 0, column):.2f}", "")
    strangers = [f"{zkview} {view} -s {folder}/strangers" for view in ("-d", "-r", "-p")]
    for view, time in zip(("-d", "-r", "-p"), processes(strangers, runs=3, rounds=1)[0]):
        row(f"`zkview {view}` of 10,000 records of other processes and unknown causes", "", f"{time:.0f} ms", "1000 ms")

    exports()
    following()

    nanoseconds = routines()
    row("`zk_l64a_r`, six digits", "", f"{nanoseconds['zk_l64a_r_six_digits']:.1f} ns", "10 ns")
    row("`zk_a64l`, six digits", "", f"{nanoseconds['zk_a64l_six_digits']:.1f} ns", "10 ns")
    row("`zk_generate_eid_2`", "`uuid_generate_time`",
        f"{nanoseconds['zk_generate_eid_2_stack'] / nanoseconds['uuid_generate_time']:.2f}", "0.5")
    row("a trace entry", "its bare system calls",
        f"{nanoseconds['trace_entry'] / nanoseconds['trace_entry_bare_calls']:.2f}", "1.10")
    incident = nanoseconds["record_incident"]
    row("an incident with an open recorder", "its bare system calls",
        f"{incident / nanoseconds['record_incident_bare_calls']:.2f}", "1.15")
    row("an incident with an open recorder", "an insert into SQLite (WAL, synchronous off)",
        f"{incident / nanoseconds['insert_into_sqlite']:.2f}", "")
    row("an incident with an open recorder", "a line of syslog to a local datagram socket",
        f"{incident / nanoseconds['send_to_syslog_socket']:.2f}", "")
    from_python(incident)
    for name in ("zk_decode_eid_2_remote", "decode_record", "format_description", "walk_full_stack"):
        row(f"`{name}`", "", f"{nanoseconds[name]:.0f} ns", "")


try:
    main()
finally:
    shutil.rmtree(folder)
