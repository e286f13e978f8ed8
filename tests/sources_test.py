# SPDX-License-Identifier: MIT
"""Lets services fail in every way, on a Debian that runs systemd, and looks at what is recorded of them. script/test-sources runs it."""
import json
import os
import re
import subprocess
import sys

import fleet
from fleet import REPOSITORY, expect, run, say, wait_until
from machines import Machine

IS_DUMPED = open("/proc/sys/kernel/core_pattern").read().startswith("core")  # and not given to a program of the machine beneath

# How each fails, and its lines, of [Unit] where they begin with "Unit:".
FAILING = {
    "exits.service": ("exit status 3", "Unit:StartLimitIntervalSec=0", 'ExecStart=/bin/sh -c "echo one; echo the disk is full >&2; exit 3"'),
    "zelkova.service": ("killed by SIGKILL", 'ExecStart=/bin/sh -c "kill -KILL $$$$"'),
    "slow.service": ("timeout", "Type=oneshot", "TimeoutStartSec=1", "ExecStart=/bin/sleep 60"),
    "checks.service": ("exit status 255", 'ExecCondition=/bin/sh -c "exit 255"', "ExecStart=/bin/true"),
    "prepares.service": ("exit status 7", 'ExecStartPre=/bin/sh -c "exit 7"', "ExecStart=/bin/true"),
    **{f"prepares_{signal}.service": (how, f'ExecStartPre=/bin/sh -c "kill -{signal} $$$$"', "LimitCORE=infinity", "WorkingDirectory=/tmp", "ExecStart=/bin/true")
       for signal, how in [("KILL", "killed by SIGKILL"), *[("SEGV", "core dump by SIGSEGV")] * IS_DUMPED]},
    "stops_badly.service": ("exit status 3", 'ExecStopPost=/bin/sh -c "exit 9"', 'ExecStart=/bin/sh -c "exit 3"'),
    "ends_badly.service": ("exit status 9", 'ExecStopPost=/bin/sh -c "exit 9"', "ExecStart=/bin/true"),
    "ignores.service": ("exit status 9", "Type=oneshot", "ExecStartPre=-/bin/false", "ExecStartPre=/bin/true", "ExecStart=/bin/true",
                        'ExecStartPost=/bin/sh -c "exit 9"', 'ExecStopPost=/bin/sh -c "exit 8"'),
    "changes.service": ("exit status 5", "Restart=on-abnormal", "RestartSec=1.1", "Unit:StartLimitBurst=1", "Unit:StartLimitIntervalSec=1",
                        'ExecStart=/bin/sh -c "test -e /run/again && exit 5; touch /run/again; kill -KILL $$$$"'),
    "barks_once.service": ("exit status 5", "WatchdogSec=100ms", "LimitCORE=0", "Restart=on-watchdog", "RestartSec=0", "Unit:StartLimitBurst=1",
                           "Unit:StartLimitIntervalSec=0", 'ExecStart=/bin/sh -c "test -e /run/barked && exit 5; touch /run/barked; sleep 60"'),
    "stays.service": ("timeout", "Restart=always", "RestartSec=1.1", "Unit:StartLimitBurst=1", "Unit:StartLimitIntervalSec=1", "TimeoutStopSec=1", "ExecStop=/bin/sleep 60",
                      'ExecStart=/bin/sh -c "test -e /run/stayed && systemctl stop stays.service; touch /run/stayed; exit 1"'),
    "prevents.service": ("exit status 5", "Restart=always", "RestartSec=0", "RestartPreventExitStatus=5", "Unit:StartLimitBurst=1", "Unit:StartLimitIntervalSec=0",
                         'ExecStart=/bin/sh -c "test -e /run/once && exit 5; touch /run/once; exit 1"'),
    "my-zelk-failure@x.service": ("exit status 203", "ExecStart=/no/such/program"),
    r"a-\x20b\x25\x5cn.service": ("exit status 5", 'ExecStart=/bin/sh -c "exit 5"'),
    "exits_once.service": ("exit status 4", "Type=oneshot", 'ExecStart=/bin/sh -c "exit 4"'),
    **{f"needs_{need}.service": ("a unit it needs failed: exits_once.service", f"Unit:{need}=exits_once.service", "Unit:After=exits_once.service",
                                 "ExecStart=/bin/true") for need in ("Requires", "Requisite", "BindsTo")},
    "needs_many.service": ("a unit it needs failed: exits_once.service", "Unit:Requisite=exits_once.service " + " ".join(
        f"down@{number}.service" for number in range(9)), "ExecStart=/bin/true"),
    "needs_two.service": ("a unit it needs failed: down@1.service", "Unit:Requisite=down@1.service", "Unit:BindsTo=down@2.service", "ExecStart=/bin/true"),
    "needs_both.service": ("a unit it needs failed: exits_once.service", "Unit:Requisite=exits_once.service", "Unit:BindsTo=zelkova.service", "ExecStart=/bin/true"),
    "part.service": ("exit status 1", "Unit:PartOf=exits_once.service", "ExecStart=/bin/false"),
    "chain.service": ("exit status 1", 'ExecStart=/bin/sh -c "zkrecord -qC chain.stack unrelated; zkrecord -qC chain.stack \\"disk full\\"; exit 1"'),
    "before.service": ("exit status 1", 'ExecStartPre=/bin/sh -c "zkrecord -qC before.stack lost; exit 1"', "ExecStart=/bin/true"),
    "steps.service": ("exit status 1", "Type=oneshot", 'ExecStart=/bin/sh -c "zkrecord -qC steps.stack lost; true"', "ExecStart=/bin/false"),
    "just_in.service": ("exit status 6", 'ExecStart=/bin/sh -c "for width in 125 300 300; do printf %%0$${width}d 1; echo; done; exit 6"'),
    "one_off.service": ("exit status 6", 'ExecStart=/bin/sh -c "for width in 1 1 126 300 300; do printf %%0$${width}d 1; echo; done; exit 6"'),
    "many.service": ("exit status 6", 'ExecStart=/bin/sh -c "for line in $$(seq 300); do echo x; done; exit 6"'),
    "long.service": ("exit status 6", 'ExecStart=/bin/sh -c "printf %%0301d 1; echo; printf ö%%.0s $$(seq 200); exit 6"'),
    "shouts.service": ("exit status 6", r'ExecStart=/bin/sh -c "head -c 100000 /dev/zero | tr \\\\0 x; echo; head -c 4 /bin/sh; echo; exit 6"'),
    "late.service": ("exit status 6", "ExecStartPre=/bin/true", "ExecReload=/bin/true", "ExecStart=/bin/sh -c 'exit 6'"),
}
DUMPS = 'LimitCORE=infinity\nWorkingDirectory=/tmp\nExecStart=/bin/sh -c "kill -SEGV $$$$"'
# The lines of theirs that are told.
TOLD = {
    "exits.service": ["one", "the disk is full"],
    "just_in.service": [f"{1:0125}", f"{1:0300}", f"{1:0300}"],
    "one_off.service": [f"{1:0300}", f"{1:0300}"],
    "many.service": ["x"] * 200,
    "shouts.service": ["x" * 297 + "..."] * 2 + ["�ELF"],
    "long.service": [f"{1:0301}"[:297] + "...", "ö" * 148 + "..."],
}
# What starts a service again, and the one that ends so, up to a limit.
RESTARTING = {
    f"{unit}_{policy}.service": ("start limit hit" if is_again else end, f"Restart={policy}", "RestartSec=0", "Unit:StartLimitBurst=2",
                                 "Unit:StartLimitIntervalSec=60", start)
    for unit, end, start, again in (
        ("exits", "exit status 1", "ExecStart=/bin/false", ("always", "on-failure")),
        ("dies", "killed by SIGKILL", 'ExecStart=/bin/sh -c "kill -KILL $$$$"', ("always", "on-failure", "on-abnormal", "on-abort")),
        ("waits", "timeout", "Type=notify\nTimeoutStartSec=100ms\nExecStart=/bin/sleep 60", ("always", "on-failure", "on-abnormal")),
        ("barks", "watchdog", "WatchdogSec=100ms\nLimitCORE=0\nExecStart=/bin/sleep 60", ("always", "on-failure", "on-abnormal", "on-watchdog")),
        *[("dumps", "core dump by SIGSEGV", DUMPS, ("always", "on-failure", "on-abnormal", "on-abort"))] * IS_DUMPED)
    for policy in ("no", "always", "on-failure", "on-abnormal", "on-abort", "on-watchdog")
    for is_again in (policy in again,)
}
GREEDY = ["MemoryMax=20M", "MemorySwapMax=0"]


def write_service(name, *lines):
    unit = [line.removeprefix("Unit:") for line in lines if line.startswith("Unit:")]
    service = [line for line in lines if not line.startswith("Unit:")]
    machine.write("/etc/systemd/system/" + name, "\n".join(["[Unit]", *unit, "[Service]", *service, ""]))


def install(*components):
    for component in components:
        run("env", "DESTDIR=" + machine.tree, "cmake", "--install", REPOSITORY + "/build/release", "--prefix", "/usr", "--component", component)


def incidents(stack="units.stack"):
    return [each for each in map(json.loads, machine.attempt("zkexport", stack)[1].splitlines()) if "message" in each]


def incidents_of(unit):
    return [each for each in incidents() if each["message"]["arguments"][0]["value"] == unit]


def incident_of(unit):
    """The newest incident about a unit, waited for."""
    if not wait_until(lambda: incidents_of(unit), limit=30, pause=0.1):
        raise SystemExit(f"{unit}: nothing is recorded\n" + machine.run("journalctl", "--no-pager", "-n", "15"))
    return incidents_of(unit)[-1]


def lines_of(unit):
    return incident_of(unit)["details"].splitlines()


def expect_incident(unit, how, told=()):
    """The whole incident: what systemd says of the unit, and lines of the journal, of which those that name the unit are systemd's own."""
    found = incident_of(unit)
    about = dict(line.split("=", 1) for line in machine.run("systemctl", "show", unit).splitlines() if "=" in line)
    main, began, ended = (int(about["ExecMain" + what]) for what in ("PID", "StartTimestampMonotonic", "ExitTimestampMonotonic"))
    facts = ["unit  " + unit]
    facts += [f"invocation  {about['InvocationID']}"] if about.get("InvocationID") else []
    facts += [f"run time  {(ended - began) / 1e6:.3f} s"] if ended > began else []
    facts += ["restarts  " + about["NRestarts"]] if about["NRestarts"] != "0" else []
    lines = found["details"].split("\n")
    found["details"] = lines[: len(facts)] + [line for line in lines[len(facts):] if unit not in line]
    for varies in ("offset", "id", "time", "id_time", "node"):
        del found[varies]
    expect(unit, found, {
        "stack": "units.stack", "cause": cause_of(unit), "description": f"Unit {unit} failed: {how}.", "details": facts + list(told),
        "process": {"name": unit[-16:], "id": main or 1, "parent": 1, "thread": main or 1},
        "source": {"file": "", "version": "", "product": "systemd", "line": 0},
        "message": {"catalog": "", "set": 0, "number": 0, "default": "Unit %1$s failed: %2$s.", "arguments": [
            {"type": "string", "value": unit}, {"type": "string", "value": how}]}})


def cause_of(unit):
    """What its processes recorded, in a stack of its name, or else the failure of what it needs."""
    needed = incidents_of("exits_once.service") if unit.startswith(("needs_", "part.")) and unit != "needs_two.service" else []
    recorded = incidents(unit.replace(".service", ".stack")) or needed
    return recorded[-1]["id"] if recorded else None


# ---- On a kernel of its own ---------------------------------------------------------------------------------------------

TRY = """
systemd-sysusers
systemd-tmpfiles --create zkview.conf
units="greedy.service child.service goes_on.service dumps.service"
systemctl start --no-block $units
for unit in $units; do
    for _ in $(seq 200); do
        zkexport units.stack 2>/dev/null | grep -q "\\"$unit\\"" && break
        sleep 0.5
    done
done
zkexport units.stack >/dev/ttyS1
"""


def emulate():
    """Boots the machine's disk, which runs /root/try and powers off. Returns what that wrote to /dev/ttyS1."""
    disk, boot = fleet.folder + "/disk", machine.tree + "/boot"
    run("mke2fs", "-q", "-t", "ext4", "-O", "^has_journal", "-d", machine.tree, disk, "2G")
    kernel, initrd = (next(f"{boot}/{name}" for name in os.listdir(boot) if name.startswith(what)) for what in ("vmlinuz-", "initrd.img-"))
    run("timeout", "900", "qemu-system-x86_64", "-accel", "tcg", "-smp", "2", "-cpu", "max", "-m", "1024", "-nic", "none", "-display", "none",
        "-monitor", "none", "-no-reboot", "-serial", f"file:{fleet.folder}/console.log", "-serial", f"file:{fleet.folder}/said",
        "-drive", f"file={disk},if=virtio,format=raw", "-kernel", kernel, "-initrd", initrd, "-append",
        "root=/dev/vda rw console=ttyS0 systemd.show_status=no systemd.wants=try.service", stdin=subprocess.DEVNULL)
    return open(fleet.folder + "/said").read()


def on_own_kernel():
    install("zkview", "sources")
    write_service("greedy.service", *GREEDY, "ExecStart=/usr/bin/tail /dev/zero")
    write_service("child.service", *GREEDY, 'ExecStart=/bin/sh -c "tail /dev/zero; sleep 600"')
    write_service("goes_on.service", *GREEDY, "OOMPolicy=continue", 'ExecStart=/bin/sh -c "tail /dev/zero; exit 3"')
    write_service("dumps.service", 'ExecStart=/bin/sh -c "kill -SEGV $$$$"')
    write_service("try.service", "Type=oneshot", "Unit:After=multi-user.target", "Unit:SuccessAction=poweroff-force",
                  "Unit:FailureAction=poweroff-force", "ExecStart=/bin/bash /root/try")
    machine.write("/root/try", TRY)
    arguments = [json.loads(line)["message"]["arguments"] for line in emulate().splitlines()]
    expect("services that run out of memory or dump core", {unit["value"]: how["value"] for unit, how, *_ in arguments}, {
        "greedy.service": "out of memory", "child.service": "out of memory", "goes_on.service": "exit status 3", "dumps.service": "core dump by SIGSEGV"})


# ---- In a container -----------------------------------------------------------------------------------------------------

def every_failure():
    machine.attempt("systemctl", "start", "--no-block", *RESTARTING)
    for unit, (how, *_) in RESTARTING.items():
        expect_incident(unit, how)
    machine.run("rm", "/var/adm/zelk/stacks/units.stack")  # which holds fifty or so
    machine.attempt("sh", "-c", "systemctl start stops.service; systemctl reload stops.service; systemctl stop stops.service")
    expect_incident("stops.service", "exit status 8")
    for unit, (how, *_) in FAILING.items():
        machine.attempt("systemctl", "start", "--no-block", unit)
        expect_incident(unit, how, TOLD.get(unit, ()))


def what_is_up_to_the_machine_beneath():
    """That cores are dumped, and memory is counted. (What their results are called is tried by the test failed_unit.says_why_it_failed too.)"""
    if not IS_DUMPED:
        say("no core dump is tried, since they go to a program of the machine beneath: --vm does")
    if "memory" in machine.attempt("cat", "/sys/fs/cgroup/cgroup.controllers")[1]:
        machine.attempt("systemctl", "start", "--no-block", "greedy.service")
        expect_incident("greedy.service", "out of memory")
    else:
        say("no lack of memory is tried, since the machine beneath does not count it: --vm does")


def what_the_journal_holds():
    """Entries as hardly a unit makes them in time: which of them are told, and whose they are."""
    unit, full = "late.service", "one_off.service"
    began = int(machine.run("busctl", "get-property", "org.freedesktop.systemd1", "/org/freedesktop/systemd1/unit/late_2eservice",
                            "org.freedesktop.systemd1.Unit", "InactiveExitTimestamp").split()[1])
    invocation, invocation_of_full = ("INVOCATION_ID=" + lines_of(name)[1].split()[1] for name in (unit, full))
    of_unit, of_main = "_SYSTEMD_UNIT=" + unit, f"_PID={incident_of(unit)['process']['id']}"
    of_command = "_PID=" + re.search(r"pid=(\d+)", machine.run("systemctl", "show", "-P", "ExecStartPre", unit))[1]
    for stack in ("late.stack", "one_off.stack"):
        machine.run("zkrecord", "-qC", stack, "lost")
    of_writer, of_writer_of_full = (f"_PID={incidents(stack)[0]['process']['id']}" for stack in ("late.stack", "one_off.stack"))
    machine.run("systemd-run", "--quiet", "--wait", "zkrecord", "-qC", "others.stack", "not lost")  # is recorded of process 1
    entries = [  # microseconds after the start, the line that is told or what is not, and fields
        (-100_000_000, "* no room is left for it", "_SYSTEMD_" + invocation_of_full, of_writer_of_full),
        (-1, "* before it", of_unit),
        (0, "at its start", of_unit),
        (1, "* of a later run", of_unit, "_SYSTEMD_INVOCATION_ID=" + "a" * 32),
        (2, "of the run\nMESSAGE=\tforged", "_SYSTEMD_" + invocation, of_writer),
        (3, "* of another unit, a process of the same number", "_SYSTEMD_UNIT=other.service", of_main),
        (4, "of the main process", of_main),
        (4, "", of_main),
        (5, "* of another process", "_PID=2"),
        *((6 + priority, ("* " if priority > 3 else "") + f"systemd with priority {priority}", invocation, "_PID=1", "_SYSTEMD_UNIT=init.scope", f"PRIORITY={priority}")
          for priority in range(8)),
        (14, "* forged", invocation, "_PID=2", "PRIORITY=3"),
        (15, "of a command before the main process", of_command),
    ]
    for place, held in ((machine.run("cat", "/etc/machine-id").strip(), entries), ("c" * 32, [(4, "* of another machine", of_main)])):
        text = "".join("\n".join([f"__REALTIME_TIMESTAMP={began + at}", f"__MONOTONIC_TIMESTAMP={began + at}", "_BOOT_ID=" + "b" * 32, *fields,
                                  f"MESSAGE\n{chr(len(line))}{7 * chr(0)}{line}", "", ""]) for at, line, *fields in held)
        folder = f"{machine.tree}/var/log/journal/{place}"
        run("sh", "-c", f"mkdir -p {folder} && /lib/systemd/systemd-journal-remote -o {folder}/late.journal -", input=text)
    said = machine.run("sh", "-c", "mkdir /run/state; export STATE_DIRECTORY=/run/state; "
                       f"for name in {full} {unit} {unit}; do /usr/libexec/zelk/unit-failure $name; done")
    expect("what it says of failures", said, f"{full}: exit status 6: {incident_of(full)['id']}\n{unit}: exit status 6: {incident_of(unit)['id']}\n"
           f"{unit}: exit status 6: as before, not recorded again\n")
    expect_incident(full, "exit status 6", TOLD[full])
    expect_incident(unit, "exit status 6", [" ".join(line.split()) for _, line, *_ in entries if line and line[0] != "*"])


def the_same_again():
    """The same failure within the hour adds up; the next one tells. Our own units are left alone."""
    def fail_again():
        machine.run("systemctl", "restart", "exits.service")
        wait_until(lambda: machine.attempt("systemctl", "is-failed", "exits.service")[0] == 0)

    def noted():
        return machine.run("cat", "/var/lib/zelk/failures/exits.service")

    for _ in range(6):  # more often than systemd starts a unit without being told to
        before = noted()
        fail_again()
        wait_until(lambda: noted() != before and machine.attempt("systemctl", "is-active", "zelk-failure@exits.service.service")[1] == "inactive\n")
    expect("the count", len(incidents_of("exits.service")), 1)
    machine.run("sed", "-i", "s/^[0-9]* /1 /", "/var/lib/zelk/failures/exits.service")
    since = machine.run("date", "-d", "@" + noted().split()[2], "+%F %T").strip()
    fail_again()
    expect("what was passed over is told", wait_until(lambda: f"passed over  6 since {since}" in lines_of("exits.service")), True)
    expect("what earlier runs wrote is not told", lines_of("exits.service").count("one"), 1)
    machine.run("systemctl", "start", "zelk-failure@zelk-failure@x.service.service.service")
    expect("failures of our own", [each["description"] for each in incidents() if "Unit zelk-" in each["description"]], [])


def the_page():
    """The page that tells of it: all but its last line, and that once the service has been recorded."""
    install("python")
    run("sh", "-c", f"cp -P {REPOSITORY}/build/release/libqx_*.so.* {machine.tree}/usr/lib/")
    page = open(REPOSITORY + "/doc/sources.md").read()
    *commands, last = re.search(r"^    zkrecord.*?^    zkexport[^\n]*", page, re.M | re.S)[0].replace("\n    ", "\n").strip().splitlines()
    machine.attempt("sh", "-c", "cd /root\n" + "\n".join(commands))
    shop = incident_of("shop.service")
    machine.run("sh", "-c", "cd /root\n" + last)
    every = {each["id"]: each for each in map(json.loads, machine.run("zkexport", "--every").splitlines()) if each.get("id")}
    chain = [shop]
    while chain[0]["cause"] in every:
        chain.insert(0, every[chain[0]["cause"]])
    shown = re.search("^    Backup of.*?^    Unit[^\n]*", page, re.M | re.S)[0]
    expect("the chain", [each["description"] for each in chain], [line.strip() for line in shown.splitlines()])
    night = machine.run("cat", "/root/night.html")
    expect("the page of the night", [what in night for what in ("Backup of /srv", "Order 4711", "Unit shop.service")], [True] * 3)


def cost():
    """What a failure costs, beside what systemd itself does."""
    took = machine.run("bash", "-c", 'TIMEFORMAT="%U %S"; rm -f /var/lib/zelk/failures/*; time setpriv --reuid zelk-failure --regid zelk '
                       "--groups systemd-journal /usr/libexec/zelk/unit-failure shouts.service >/dev/null", stderr=subprocess.STDOUT)
    milliseconds = sum(map(float, took.split()[-2:])) * 1000
    expect(f"a failure costs {milliseconds:.0f} ms of CPU, no more than 50", milliseconds <= 50, True)


fleet.enter(os.path.abspath(__file__))
if "--vm" in sys.argv:
    machine = Machine("vm", root="vm")
    on_own_kernel()
    fleet.finish()
machine = Machine("machine").boot()
install("zkview", "sources")
machine.run("sh", "-c", "ln -sf /usr/share/zoneinfo/Asia/Kathmandu /etc/localtime && systemd-sysusers && systemd-tmpfiles --create zkview.conf")
for name, (_, *lines) in (FAILING | RESTARTING).items():
    write_service(name, *lines)
write_service("greedy.service", *GREEDY, "ExecStart=/usr/bin/tail /dev/zero")
write_service("down@.service", "Unit:ConditionPathExists=/none", "ExecStart=/bin/true")
write_service("stops.service", 'ExecReload=/bin/sh -c "zkrecord -qC stops.stack lost; exit 1"', 'ExecStop=/bin/sh -c "exit 8"', "ExecStart=/bin/sleep 60")
machine.run("systemctl", "daemon-reload")
every_failure()
what_is_up_to_the_machine_beneath()
what_the_journal_holds()
the_same_again()
fleet.transcript("failed_units", {"machine": (machine.enter(), {})})
the_page()
cost()
fleet.finish()
