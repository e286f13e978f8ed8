# SPDX-License-Identifier: MIT
"""Tries a fleet as its users have it: a middle and two nodes, whole machines that are set up from the packages by the commands of
doc/fleet.md alone. script/test-system runs it."""
import glob
import os
import re
import shutil
import subprocess
import sys
import threading
import time

import fleet
from fleet import REPOSITORY, expect, run, say, wait_until
from machines import Machine, mount_disks

NODE_UNITS = ["zelk-export", "zelk-forward", "zelk-alive.timer"]
PACKAGES = f"--bind-ro={REPOSITORY}/build/packages:/root/packages"
recorded = []  # incidents: host, stack, Error ID


def follow(machine, section):
    """Runs the commands of a section of doc/fleet.md, as they stand there."""
    page = open(REPOSITORY + "/doc/fleet.md").read()
    commands = re.findall(r"^    \$ (.*\n)", re.search(rf"^### {section}\n(.*?)^##", page, re.MULTILINE | re.DOTALL)[1], re.MULTILINE)
    machine.run("sh", "-euxc", "cd /root/packages && . /dev/stdin", input="".join(commands))


def install(machine, *names):
    machine.run("apt-get", "-qq", "-y", "install", *(f"/root/packages/{os.path.basename(path)}" for name in names
                                                     for path in glob.glob(f"{REPOSITORY}/build/packages/{name}_*.deb")))


def query(text, machine=None):
    command = ["runuser", "-u", "postgres", "--", "psql", "-XqAt", "-v", "ON_ERROR_STOP=1", "-d", "zelk"]
    return (machine or middle).run(*command, input=text).strip()


def rows(condition="true", machine=None):
    return int(query(f"SELECT count(*) FROM zelk_incident WHERE {condition}", machine))


def missing():
    return fleet.missing(recorded, query)


def record_many(node, stack, count, trouble=None):
    """Records incidents as a member of the group, so many, and on while there is trouble. A reboot interrupts that."""
    noted = 0
    while noted < count or (trouble and trouble.is_set()):
        for line in node.start_recording(stack, count - noted if noted < count else 100, stacks=16).stdout:
            recorded.append((node.name, *line.split()))
            noted += 1
        time.sleep(0.1)


def start_recording_many(*arguments):
    thread = threading.Thread(target=record_many, args=arguments, daemon=True)
    thread.start()
    return thread


# ---- Setting up ---------------------------------------------------------------------------------------------------------

def set_up_node(node):
    node.run("sh", input=middle.run("zelk-middle-setup", "--node=" + node.name))


def set_up():
    follow(middle, "In the middle")
    say("the middle is set up")
    expect("what listens to all may do little: less than 2.0", middle.attempt(
        "systemd-analyze", "security", "--threshold=20", "zelk-gather")[0], 0)
    for node in (node1, node2):
        follow(node, "On each node")
        expect(f"nothing runs on {node.name} before it is set up", node.attempt("systemctl", "is-active", *NODE_UNITS)[1].split(),
               ["inactive"] * 3)
        set_up_node(node)
        node.run("useradd", "--groups", "zelk", "member")
        node.run("useradd", "stranger")
    say("the nodes are set up")
    for machine in (middle, node1):
        expect(f"secrets of {machine.name} are for none but who needs them", machine.run(
            "find", "/etc/zelk", "-type", "f", "-perm", "/o=rwx", "!", "-name", "*.env", "!", "-name", "*.pem", "!", "-name", "middle.name"), "")


# ---- Incidents ----------------------------------------------------------------------------------------------------------

def chain_and_night():
    """Two incidents of a chain, and others while the gatherer is killed. Returns the chain."""
    first = node1.record("chain", "Fan 3 of <enclosure 1> stands still.")
    second = node2.record("chain", "-c", first, "Disk disk07 is too warm.")
    recorded.extend([("node1", "chain", first), ("node2", "chain", second)])
    nights = [start_recording_many(node, "night", 49) for node in (node1, node2)]
    wait_until(lambda: len(recorded) >= 50)
    middle.kill("zelk-gather")
    for night in nights:
        night.join()
    expect("100 incidents arrive under the names in certificates, though zelk-gather was killed", (
        wait_until(lambda: missing() == [], limit=30), len(recorded)), (True, 100))
    expect("a chain leads over both nodes", re.findall(r"(?:Fan|Disk) [^.]*\.", middle.run("zelk-chain", second)),
           ["Fan 3 of <enclosure 1> stands still.", "Disk disk07 is too warm."])
    expect("all is well", re.sub("delay=.*", "", middle.run("zelk-check")), "ZELK OK - the incidents of 2 nodes arrive | "
           "gaps=0;0;;0 rejected=0;0;;0 silent=0;0;;0 nodes=2;;;0 \n")
    return first, second


def outside_the_group(key):
    expect("who is not in the group records nothing", node1.attempt(
        "runuser", "-u", "stranger", "--", "zkrecord", "-C", "strange", "Hello."), (1, ""))
    expect("who is not in the group asks nothing", middle.attempt("runuser", "-u", "nobody", "--", "zelk-chain", key), (1, ""))


def shut_out():
    middle.run("zelk-middle-setup", "--revoke=node2")
    last = node2.record("chain", "A node that is shut out.")
    refused = wait_until(lambda: "certificate chain is revoked" in middle.run("journalctl", "--quiet", "--unit=zelk-gather"))
    expect("a node that is shut out is heard no more", (refused, rows(f"key = '{last}'")), (True, 0))
    set_up_node(node2)
    expect("and heard again when it is set up anew", wait_until(lambda: rows(f"key = '{last}'") == 1), True)


def pages(chain):
    follow(middle, "Pages and monitoring")
    folder = middle.tree + "/var/cache/zelk/pages/"
    front = folder + "index.html"
    wait_until(lambda: os.path.exists(front) and "enclosure 1" in open(front).read(), limit=30)
    page = re.search('href="(chain-[^"]*)">Fan 3', open(front).read())[1]
    expect("the page of the chain has both incidents", [key in open(folder + page).read() for key in chain], [True, True])
    if shutil.which("chromium"):
        shutil.copytree(folder, fleet.folder + "/pages")
        browsed("index.html", page)
    middle.run("systemctl", "disable", "--now", "zelk-page.timer", "zelk-drop.timer")


def browsed(front, page):
    def browse(name):
        return run("timeout", "60", "chromium", "--headless", "--no-sandbox", f"--user-data-dir={fleet.folder}/profile", "--disable-gpu",
                   "--virtual-time-budget=1000", "--enable-logging=stderr", "--dump-dom", f"file://{fleet.folder}/pages/{name}", stderr=said)

    fan = "Fan 3 of &lt;enclosure 1&gt; stands still."
    with open(fleet.folder + "/browser.log", "w+") as said:
        expect("a browser shows recorded texts as texts, and where they lead", f'<a href="{page}">{fan}</a>' in browse(front), True)
        expect("and the chain there", fan in browse(page), True)
        expect("without a complaint", "CONSOLE" in said.read(), False)


def no_incident():
    node2.run("sh", "-c", 'echo "no incident" >>"$(ls /var/lib/zelk/spool/*.json | tail -n 1)"')
    wait_until(lambda: middle.attempt("zelk-check")[0] != 0)
    status, said = middle.attempt("zelk-check")
    expect("a line that is no incident is a warning", (status, said.partition("|")[0]), (1, "ZELK WARNING - 1 lines rejected in 1 day "))
    query("UPDATE zelk_rejected SET received = received - interval '2 years'")
    middle.run("systemctl", "start", "zelk-drop")
    expect("what is old is dropped", query("SELECT count(*) FROM zelk_rejected"), "0")


# ---- Trouble ------------------------------------------------------------------------------------------------------------

def kill_units():
    for machine, units in ((middle, ("zelk-gather", "postgresql@15-main")), (node1, NODE_UNITS[:2]), (node2, NODE_UNITS[:2])):
        for unit in units:
            machine.kill(unit)
            time.sleep(2)
    middle.run("systemctl", "start", "postgresql@15-main")  # Debian's unit does not come back by itself


def kill_page():
    """Returns when it was killed."""
    middle.run("sh", "-c", "systemctl start zelk-page.timer && systemctl start --no-block zelk-page && sleep 0.1")
    middle.kill("zelk-page")
    return time.time()


def stuck_gatherer():
    def process():
        return middle.run("systemctl", "show", "--property=MainPID", "zelk-gather").strip()

    stopped = process()
    middle.kill("zelk-gather", "STOP")
    expect("a gatherer that is stuck is replaced", wait_until(lambda: process() not in (stopped, "MainPID=0"), limit=90, pause=0.5), True)


def cut_network():
    for machine in (node1, middle):
        machine.cut_off()
        say(f"{machine.name} was cut off")
        time.sleep(5)
        machine.connect()


def fill_disks():
    for machine, folder in ((node1, "/var/lib/zelk"), (middle, "/var/lib/postgresql")):
        machine.attempt("sh", "-c", f"cat /dev/zero >{folder}/filler")
        say(f"the disk of {machine.name} is full")
        time.sleep(3)
        machine.run("rm", folder + "/filler")
    middle.run("systemctl", "start", "postgresql@15-main")


def endure():
    """10,000 incidents while everything ends and comes back."""
    trouble = threading.Event()
    trouble.set()
    before = len(recorded)
    recorders = [start_recording_many(node, "busy", 5000, trouble) for node in (node1, node2)]
    wait_until(lambda: len(recorded) >= before + 500)
    kill_units()
    killed = kill_page()
    stuck_gatherer()
    cut_network()
    fill_disks()
    for machine in (node1, middle, node2):
        machine.reboot()
    middle.pull_plug()
    middle.boot()
    say("the middle ended at once, and is back")
    trouble.clear()
    for recorder in recorders:
        recorder.join()
    say("all are recorded")
    wait_until(lambda: fleet.missing_untold(recorded, query) == [], limit=120, pause=0.5)
    expect("more than 10,000 incidents were recorded", len(recorded) >= 10100, True)
    expect("those that are not there were overwritten, and that is told", fleet.missing_untold(recorded, query), [])
    say(f"{len(recorded) - len(missing())} of {len(recorded)} are there")
    expect("none is there twice", query("SELECT count(*) - count(DISTINCT key) FROM zelk_incident"), "0")
    expect("all services have come back", "".join(machine.attempt("systemctl", "is-active", *units)[1] for machine, units in (
        (node1, NODE_UNITS), (node2, NODE_UNITS), (middle, ["zelk-gather"]))), "active\n" * 7)
    middle.run("systemctl", "start", "zelk-page.timer")
    expect("pages are written again", wait_until(lambda: os.path.getmtime(
        middle.tree + "/var/cache/zelk/pages/index.html") > killed, limit=90, pause=0.5), True)
    middle.run("systemctl", "stop", "zelk-page.timer")


# ---- Other ways to set up -----------------------------------------------------------------------------------------------

VERSION_1_1_0 = """
apt-get -qq -y install /root/old/zkview_*.deb rsyslog-relp rsyslog-pgsql dbconfig-no-thanks postgresql-15
cd /usr/share/doc/zkview/examples/fleet
runuser -u postgres -- createdb zelk
runuser -u postgres -- psql -q -d zelk -f schema.sql
runuser -u postgres -- psql -q -d zelk -c "ALTER ROLE zelk_writer PASSWORD 'of old'"
install -D -m 644 middle.conf /etc/zelk/middle.conf
printf '%s\\n' ZELK_DATABASE=postgresql://zelk_writer@127.0.0.1/zelk PGPASSFILE=/etc/zelk/pgpass >/etc/zelk/middle.env
echo '127.0.0.1:5432:zelk:zelk_writer:of old' >/etc/zelk/pgpass
chmod 600 /etc/zelk/pgpass
install -D -m 755 zelk-spool /usr/local/libexec/zelk-spool
install -D -m 644 node.conf /etc/zelk/node.conf
echo ZELK_MIDDLE=localhost >/etc/zelk/node.env
install -m 644 zelk-middle@.service zelk-export.service zelk-forward.service /etc/systemd/system
systemctl enable --now zelk-middle@2514 zelk-export zelk-forward
useradd --groups zelk member
"""


def upgrade():
    """A machine that was both middle and node by version 1.1.0, set up by hand as was told then."""
    both = Machine("both", PACKAGES, f"--bind-ro={REPOSITORY}/build/1.1.0/build/packages:/root/old").boot()
    both.run("sh", "-eux", input=VERSION_1_1_0)
    recorded.clear()
    record_many(both, "before", 200)

    def are_there():
        there = set(query("SELECT key FROM zelk_incident", both).split())
        return all(key in there for _, _, key in recorded)

    expect("version 1.1.0 works", (wait_until(are_there, limit=60), len(recorded)), (True, 200))
    both.run("systemctl", "disable", "--now", "zelk-middle@2514", "zelk-export", "zelk-forward")
    both.run("sh", "-c", "cd /etc/systemd/system && rm zelk-middle@.service zelk-export.service zelk-forward.service")
    record_many(both, "meanwhile", 100)  # nobody reads them yet
    follow(both, "In the middle")
    follow(both, "On each node")
    expect("the commands are those of now", both.run("sha256sum", "/usr/bin/zkexport"), middle.run("sha256sum", "/usr/bin/zkexport"))
    both.run("sh", "-c", "zelk-middle-setup --node=node3 | sh")
    record_many(both, "after", 100)
    expect("the packages go on with what version 1.1.0 left", (wait_until(are_there, limit=60), len(recorded)), (True, 400))
    expect("nothing is there twice", rows("incident->>'stack' <> 'zelk-alive'", both), 400)


def share_rows():
    """A middle whose rows lie in two databases, which lie elsewhere for all that it knows."""
    sharing = Machine("sharing", PACKAGES).boot()
    install(sharing, "zkview", "zkview-middle")
    for command in ("CREATE ROLE boss SUPERUSER LOGIN PASSWORD 'secret'", "CREATE DATABASE one", "CREATE DATABASE two"):
        sharing.run("runuser", "-u", "postgres", "--", "psql", "-qc", command)
    one, two = (f"--database=host=127.0.0.1,127.0.0.2 target_session_attrs=read-write user=boss password=secret dbname={name}"
                for name in ("one", "two"))
    for _ in range(2):
        sharing.run("zelk-middle-setup", one, two)
    sharing.run("zkrecord", "-q", "-C", "shared", "0")
    command = sharing.run("zelk-middle-setup", "--node=node4", one)
    install(sharing, "zkview-node")
    sharing.run("sh", input=command)
    sharing.run("sh", "-c", 'for number in $(seq 99); do zkrecord -q shared "$number"; sleep 0.01; done')
    settings = open(sharing.tree + "/etc/zelk/zelk_writer.conf").read().splitlines()
    expect("all hosts of a database are known", [settings.count(line) for line in (
        "host=127.0.0.1,127.0.0.2", "target_session_attrs=read-write")], [2, 2])

    def ask(what):
        return sharing.run("env", "PGSERVICEFILE=/etc/zelk/zelk_reader.conf", "PGSERVICE=zelk_reader", "psql", "-XAtc",
                           f"SELECT {what} FROM zelk_incident WHERE incident->>'stack' = 'shared'").strip()

    wait_until(lambda: ask("count(*)") == "100", limit=30)
    expect("one question has the rows of two databases", ask("count(*), count(DISTINCT tableoid)"), "100|2")
    expect("which is well", sharing.run("zelk-check").partition("|")[0], "ZELK OK - the incidents of 1 nodes arrive ")


# ---- Removing -----------------------------------------------------------------------------------------------------------

def purge(machine, package):
    return machine.run("apt-get", "-qq", "-y", "purge", package, stderr=subprocess.STDOUT)


def remove():
    before = rows()  # signs of life may still come
    expect("removal says where incidents stay", purge(node2, "zkview-node").count("/var/lib/zelk"), 2)
    expect("and they do", glob.glob(node2.tree + "/var/lib/zelk/spool/*.json") != [], True)
    expect("so in the middle", purge(middle, "zkview-middle").count("database zelk"), 2)
    expect("whose rows are there", rows() >= before, True)
    expect("secrets are gone", [glob.glob(machine.tree + "/etc/zelk/*") for machine in (node2, middle)], [[], []])


fleet.enter(os.path.abspath(__file__))
for name in ("middle", "node1"):
    mount_disks("small-" + name, "-o", "size=250m")  # disks that can be full
middle = Machine("middle", PACKAGES, f"--bind={fleet.folder}/small-middle:/var/lib/postgresql")
node1 = Machine("node1", PACKAGES, f"--bind={fleet.folder}/small-node1:/var/lib/zelk")
node2 = Machine("node2", PACKAGES)
for machine in (middle, node1, node2):
    machine.boot()
say("three machines have booted")
set_up()
chain = chain_and_night()
outside_the_group(chain[1])
shut_out()
pages(chain)
no_incident()
if "--long" in sys.argv:
    endure()
    upgrade()
    share_rows()
remove()
fleet.finish()
