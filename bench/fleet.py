# SPDX-License-Identifier: MIT
"""Runs what script/bench-fleet measures and prints the table of BENCHMARKS.md. The argument is the folder of the build.

Every node has files and a host name of its own, and what a real one runs: zelk-spool with zkexport, and rsyslog. For
lines a second it is given stacks that are full already, so that recording does not limit what is measured."""

import os
import shutil
import statistics
import struct
import subprocess
import sys
import tempfile
import time

ALPHABET = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
STACK_SIZE = 16384
PORTS = [str(port) for port in range(2514, 2522)]  # of the instances in the middle
FLEET = os.path.abspath("fleet")
POSTGRES = "/usr/lib/postgresql/15/bin"

folder = tempfile.mkdtemp(prefix="zkview-fleet-")
environment = os.environ | {"PATH": os.path.abspath(sys.argv[1] + "/bin") + ":/usr/sbin:" + os.environ["PATH"],
                            "PGHOST": folder, "PGUSER": "postgres", "PGDATABASE": "zelk", "LC_ALL": "C"}
log = open(folder + "/log", "w")


def run(*command, **options):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, env=environment, **options).stdout


def query(text):
    return run("psql", "-XqAt", "-v", "ON_ERROR_STOP=1", "-c", text).strip()


def start(command, **variables):
    return subprocess.Popen(command, env=environment | variables, stdout=log, stderr=log)


# ---- The middle ---------------------------------------------------------------------------------------------------------

def make_middle():
    run("ip", "link", "set", "lo", "up")
    os.chmod(folder, 0o755)
    shutil.chown(folder, "postgres")
    as_postgres = ["runuser", "-u", "postgres", "--"]
    run(*as_postgres, POSTGRES + "/initdb", "-D", folder + "/database", "-A", "trust", "-E", "UTF8", "--locale=C.UTF-8")
    with open(folder + "/database/postgresql.conf", "a") as settings:
        settings.write(f"unix_socket_directories = '{folder}'\nlisten_addresses = ''\nmax_wal_size = 4GB\n")
    run(*as_postgres, POSTGRES + "/pg_ctl", "-D", folder + "/database", "-l", folder + "/database.log", "-w", "start")
    run("createdb", "zelk")
    run("psql", "-q", "-f", FLEET + "/schema.sql")
    for port in PORTS:
        os.mkdir(f"{folder}/{port}")
        start(["rsyslogd", "-n", "-iNONE", "-f", FLEET + "/middle.conf"], ZELK_PORT=port, ZELK_STATE=f"{folder}/{port}",
              ZELK_DATABASE=f"postgresql://zelk_writer@/zelk?host={folder}")


# ---- Nodes --------------------------------------------------------------------------------------------------------------

NODE = """
hostname node$1
mount -t tmpfs none /var && mount -t tmpfs none /run
mkdir -p /var/adm/zelk/stacks /var/lib/zelk/spool /run/zelk-forward
[ -z "$3" ] || cp "$3"/* /var/adm/zelk/stacks
rsyslogd -n -iNONE -f "$2/node.conf" & forward=$!
setsid "$2/zelk-spool" & spool=$!
trap 'kill -- -$spool; kill -9 $forward; exit' TERM
wait
"""


def start_nodes(folders, port_count):
    """A node for each folder of stacks; an empty name for none. They share the first ports."""
    return [start(["unshare", "--mount", "--uts", "sh", "-c", NODE, "node", str(number), FLEET, stacks],
                  ZELK_MIDDLE="127.0.0.1", ZELK_PORT=PORTS[number % port_count],
                  ZELK_SPOOL="/var/lib/zelk/spool", ZELK_STATE="/run/zelk-forward")
            for number, stacks in enumerate(folders)]


def stop(nodes):
    for node in nodes:
        node.terminate()
    for node in nodes:
        node.wait()


def digits(number, count):
    return "".join(ALPHABET[number >> 6 * at & 63] for at in range(count)).encode()


def make_stacks(stacks, sample, numbers):
    """Full stacks with a copy of the sample's incident for each number, recorded now and with an Error ID of its own."""
    with open(sample, "rb") as stack:
        length, = struct.unpack("=i", stack.read(28)[24:])
        body = stack.read(length)
    # The body has the Error ID at 4 and the time at 90.
    records = [struct.pack("=i", length) + body[:5] + digits(number, 5) + body[10:90] +
               struct.pack("=i", int(time.time())) + body[94:] for number in numbers]
    os.mkdir(stacks)
    each = (STACK_SIZE - 24) // (4 + length)
    for first in range(0, len(records), each):
        text = b"".join(records[first:first + each])
        header = struct.pack("=5i4x", 0, 24, 24 + len(text), 24, STACK_SIZE)
        with open(f"{stacks}/long{first}", "wb") as stack:
            stack.write((header + text).ljust(STACK_SIZE, b"\0"))


# ---- Measuring ----------------------------------------------------------------------------------------------------------

first_free = 0  # number of the next incident


def lines_a_second(sample, node_count, port_count, lines):
    """From stacks to rows, between the first row and the last."""
    global first_free
    each = lines // node_count
    begin = query("SELECT date_trunc('second', clock_timestamp())")
    folders = [f"{folder}/stacks{first_free + number}" for number in range(node_count)]
    for stacks in folders:
        make_stacks(stacks, sample, range(first_free, first_free + each))
        first_free += each
    nodes = start_nodes(folders, port_count)
    arrived = f"FROM zelk_incident WHERE time >= '{begin}' AND incident->>'stack' LIKE 'long%'"
    deadline = time.monotonic() + 240
    while int(query("SELECT count(*) " + arrived)) < each * node_count:
        if time.monotonic() > deadline:
            raise SystemExit(f"only {query('SELECT count(*) ' + arrived)} of {lines} lines have arrived")
        time.sleep(1)
    stop(nodes)
    return float(query("SELECT count(*) / extract(epoch FROM max(received) - min(received)) " + arrived))


RECORD = 'for i in $(seq "$1"); do zkrecord -q -C delay "Disk %s: %d unreadable sectors." disk07 $i; sleep 0.02; done'


def delay(node_count, port_count, incidents):
    """Median and 99% from zkrecord on one of the nodes to the row, in milliseconds."""
    begin = query("SELECT date_trunc('second', clock_timestamp())")
    nodes = start_nodes([""] * node_count, port_count)
    time.sleep(3 + node_count / 20)
    run("nsenter", "-t", str(nodes[0].pid), "--mount", "--uts", "sh", "-c", RECORD, "record", str(incidents))
    time.sleep(3)
    stop(nodes)
    answer = query("SELECT count(*), percentile_cont(ARRAY[0.5, 0.99]) WITHIN GROUP (ORDER BY 1000 * extract(epoch FROM"
                   f" received - (incident->>'id_time')::timestamptz)) FROM zelk_incident WHERE time >= '{begin}'"
                   " AND incident->>'stack' = 'delay'")
    count, percentiles = answer.split("|")
    if int(count) != incidents:
        raise SystemExit(f"only {count} of {incidents} incidents have arrived")
    return [float(number) for number in percentiles.strip("{}").split(",")]


def fill(line, count):
    """Adds incidents of the last year in chains of four, up to `count` rows."""
    query(f"""SELECT count(zelk_put('node' || number % 100, 'filled:' || number,
        replace(replace(regexp_replace({line}, '"time":"[^"]*"', '"time":"' || to_char(
                now() AT TIME ZONE 'UTC' - interval '1 second' * (number * 7919 % 31000000 + 86400),
                'YYYY-MM-DD"T"HH24:MI:SS"Z"') || '"'), substr({line}, strpos({line}, '"id":"') + 6, 12), name),
            '"cause":null', CASE WHEN number % 4 = 0 THEN '"cause":null' ELSE '"cause":"' || cause || '"' END)))
      FROM (SELECT number, '/' || lpad(number::text, 11, '0') AS name,
              '/' || lpad((number - 1)::text, 11, '0') || substr({line}, strpos({line}, '"id":"') + 18, 30) AS cause
              FROM generate_series((SELECT count(*) FROM zelk_incident), {count} - 1) number) numbers""")
    query("VACUUM ANALYZE")
    query("CHECKPOINT")


def bytes_a_row():
    return round(float(query("SELECT sum(pg_total_relation_size(inhrelid)) / (SELECT count(*) FROM zelk_incident)"
                             " FROM pg_inherits WHERE inhparent = 'zelk_incident'::regclass")))


def chain_time():
    """Median time of zelk_chain in milliseconds, planning included."""
    times = []
    for key in query("SELECT key FROM zelk_incident WHERE key LIKE '/%' AND cause IS NOT NULL LIMIT 30").split():
        plan = query(f"EXPLAIN ANALYZE SELECT * FROM zelk_chain('{key}')")
        times.append(sum(float(line.split()[2]) for line in plan.splitlines() if " Time: " in line))
    return statistics.median(times)


def row(*columns):
    print("| " + " | ".join(columns) + " |", flush=True)


def measure(sample, rows, node_count, port_count):
    rate = lines_a_second(sample, node_count, port_count, 4000)
    median, most = delay(node_count, port_count, 500)
    row(f"{rows:,}", f"{node_count}", f"{port_count}", f"{rate:.0f}", f"{median:.1f} ms", f"{most:.1f} ms", f"{bytes_a_row()}",
        f"{chain_time():.1f} ms")


def main():
    make_middle()
    sample = folder + "/sample"
    run("zkrecord", "-q", "-C", "-d", "slot 7 of enclosure 1\nretries    16", "--file=dm_scan.c", "--line=412",
        "--product=stn.node", sample, "Disk %s: %d unreadable sectors, the first at %d.", "disk07", "3", "8589934712")
    line = "'" + run("zkexport", sample).strip().replace("'", "''") + "'"
    row("rows", "nodes", "instances in the middle", "lines a second", "delay, median", "delay, 99%", "bytes a row",
        "`zelk_chain`")
    row(*["---"] * 8)
    for rows in (10_000, 100_000, 1_000_000):
        fill(line, rows)
        measure(sample, rows, 1, 1)
    for node_count, port_count in ((10, 1), (10, 8), (100, 1), (100, 8)):
        measure(sample, rows, node_count, port_count)
    synced = run(POSTGRES + "/pg_test_fsync", "-s", "1", "-f", folder + "/synced")
    print(f"\nA line has {len(line) - 2} bytes. The disk:",
          *next(text for text in synced.splitlines() if text.strip().startswith("fdatasync ")).split())


def allow_watches(count):
    """Lets root watch files in that many processes, since all nodes are on one machine. Returns how many it were."""
    limit = "/proc/sys/fs/inotify/max_user_instances"
    with open(limit, "r+") as setting:
        before = int(setting.read())
        setting.seek(0)
        setting.write(str(count))
    return before


watches = allow_watches(1024)
try:
    main()
finally:
    allow_watches(watches)
    subprocess.run(["runuser", "-u", "postgres", "--", POSTGRES + "/pg_ctl", "-D", folder + "/database", "-m",
                    "immediate", "stop"], stdout=log, stderr=log, check=False)
    shutil.rmtree(folder)
