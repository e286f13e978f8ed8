# SPDX-License-Identifier: MIT
"""Nodes that boot, in the words of fleet.py: each is a Debian 12 that runs systemd in a container of its own. It boots in a second or
two. The roots that they are copies of are made by script/common.sh."""
import atexit
import contextlib
import os
import signal
import subprocess
import time

import fleet
from fleet import run, say, start, wait_until

machines = []


def control_groups(name):
    """A group of that name in each of the hierarchies that systemd needs, below that of this process."""
    groups = []
    for line in open("/proc/self/cgroup"):
        _, controller, own = line.rstrip("\n").split(":", 2)
        unified = "/unified" if os.path.isdir("/sys/fs/cgroup/unified") else ""
        group = {"": "/sys/fs/cgroup" + unified, "name=systemd": "/sys/fs/cgroup/systemd"}.get(controller, "/nowhere") + own
        if os.access(group + "/cgroup.procs", os.W_OK):
            groups.append(f"{group}/{os.path.basename(fleet.folder)}-{name}")
    return groups


def clean_up():
    for machine in machines:
        machine.pull_plug()
        for group in control_groups(machine.name):
            for place, _, _ in os.walk(group, topdown=False):
                with contextlib.suppress(OSError):
                    os.rmdir(place)


def mount_disks(name, *options):
    """What machines write is not worth a disk."""
    os.makedirs(f"{fleet.folder}/{name}")
    run("mount", "-t", "tmpfs", *options, "disks", f"{fleet.folder}/{name}")
    atexit.register(run, "umount", "--lazy", "--recursive", f"{fleet.folder}/{name}")


class Machine(fleet.Host):
    """Its disk lies at `tree`, a layer over a root that several may share; what it says while it boots goes to NAME.log. The options
    are those of systemd-nspawn. Its network outlives it."""

    as_member = ["runuser", "-u", "member", "--"]

    def __init__(self, name, *options, root="system"):
        super().__init__(name)
        if not machines:
            mount_disks("machines")
            atexit.register(clean_up)
        machines.append(self)
        self.process = None
        self.options = options
        place = f"{fleet.folder}/machines/{name}"
        self.tree = place + "/tree"
        for part in ("disk", "work", "tree"):
            os.makedirs(f"{place}/{part}")
        run("mount", "-t", "overlay", "-o", f"lowerdir={fleet.REPOSITORY}/build/roots/{root},upperdir={place}/disk,workdir={place}/work",
            "overlay", self.tree)
        self.write("/etc/hostname", name)
        for each in machines:
            each.write("/etc/hosts", "127.0.0.1 localhost\n" + "".join(f"{other.address} {other.name}\n" for other in machines))

    def write(self, path, text):
        with open(self.tree + path, "w") as file:
            file.write(text)

    def boot(self):
        groups = control_groups(self.name)
        for group in groups:
            os.makedirs(group, exist_ok=True)
        joined = "".join(f"echo 0 >{group}/cgroup.procs && " for group in groups)
        with open(f"{fleet.folder}/{self.name}.log", "a") as output:
            self.process = start("sh", "-c", joined + 'exec systemd-nspawn "$@" </dev/null', "-", "--quiet", "--register=no", "--keep-unit",
                                 "--link-journal=no", "--resolv-conf=off", "--console=pipe", "--boot", "--directory=" + self.tree,
                                 "--machine=" + self.name, f"--network-namespace-path=/proc/{self.holder.pid}/ns/net", *self.options,
                                 output=output)
        if not wait_until(lambda: self.attempt("systemctl", "is-system-running")[1].strip() in ("running", "degraded"), limit=60, pause=0.2):
            raise SystemExit(f"{self.name} does not boot: " + open(output.name).read()[-2000:])
        return self

    def init(self):
        """The newest child of systemd-nspawn is the init of its machine. 0 where there is none."""
        try:
            return int(open(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read().split()[-1])
        except (OSError, IndexError):
            return 0

    def enter(self):
        """Where the machine is not up, this fails."""
        return ["nsenter", "--target", str(self.init()), "--mount", "--uts", "--ipc", "--net", "--pid", "--cgroup", "--root", "--wd",
                "env", "--ignore-environment", "--chdir=/", "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                "HOME=/root", "LANG=C.UTF-8", "DEBIAN_FRONTEND=noninteractive"]

    def kill(self, unit, how="KILL"):
        self.run("systemctl", "kill", "--signal=" + how, "--kill-whom=all", unit)
        say(f"{unit} of {self.name} got SIG{how}")

    def pull_plug(self):
        """Ends at once, with all that runs on it. What it wrote is on its disk; only a loss of power would take of that."""
        init = self.process and self.init()
        if init:
            os.kill(init, signal.SIGKILL)
        self.wait_for_end()

    def shut_down(self):
        self.attempt("systemctl", "poweroff")
        self.wait_for_end()

    def reboot(self):
        self.shut_down()
        self.boot()
        say(f"{self.name} was rebooted")

    def wait_for_end(self):
        """A machine that shuts down stops all processes before it kills them. An nsenter stops with what it runs there, and the
        machine does not end before that has been waited for: so it is continued. (No others are in sight here.)"""
        while self.process and self.process.poll() is None:
            subprocess.run(["pkill", "-CONT", "-x", "nsenter"], check=False)
            time.sleep(0.1)
