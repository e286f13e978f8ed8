# SPDX-License-Identifier: MIT
"""Runs what script/bench-fleet measures and prints the tables of BENCHMARKS.md. All rows come from one run, beside what the disk
and COPY do in it."""
import os
import random
import select
import selectors
import signal
import statistics
import struct
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../tests"))
import fleet
from fleet import Conversation, Node, digits, id_of, kill, line_of, query, run, start_gatherer, wait_until

STACK_SIZE = 16384
first_free = 0  # number of the next incident


def lines_of(count):
    global first_free
    numbers = range(first_free, first_free + count)
    first_free += count
    return [line_of(number) for number in numbers]


def row(*columns):
    print("| " + " | ".join(str(column) for column in columns) + " |", flush=True)


def heading(*columns):
    row(*columns)
    row(*["---"] * len(columns))


# ---- What it costs ------------------------------------------------------------------------------------------------------

def cpu_of(name):
    """Seconds of CPU that all processes have taken that have it in their command line, and one thread."""
    total = 0
    for process in filter(str.isdigit, os.listdir("/proc")):
        try:
            if name not in open(f"/proc/{process}/cmdline").read():
                continue
            total += int(open(f"/proc/{process}/schedstat").read().split()[0])
        except OSError:
            pass
    return total / 1e9


def memory_of(process):
    return int(next(line for line in open(f"/proc/{process}/status") if line.startswith("VmHWM")).split()[1]) // 1024


def disk():
    answer = run(fleet.POSTGRES + "/pg_test_fsync", "-s", "1", "-f", fleet.folder + "/synced")
    os.remove(fleet.folder + "/synced") if os.path.exists(fleet.folder + "/synced") else None
    return float(next(line for line in answer.splitlines() if line.strip().startswith("fdatasync ")).split()[1])


def copied_row(key, line, cause=None):
    """A row as COPY takes it."""
    bucket = fleet.ALPHABET.index(key[13]) + 64 * fleet.ALPHABET.index(key[14])
    at = line[line.index('"id_time":"') + 11:][:27]
    return f"{bucket}\t{at}\t{key}\t{cause or chr(92) + 'N'}\tcopied\t" + line.replace("\\", "\\\\") + "\n"


def copied(count, database="zelk"):
    """Rows a second by COPY into the same table, a thousand a commit."""
    lines = lines_of(count)
    keys = [id_of(first_free - count + number) for number in range(count)]
    with open(fleet.folder + "/copy.sql", "w") as script:
        for first in range(0, count, 1000):
            script.write("COPY zelk_incident (bucket, time, key, cause, host, incident) FROM STDIN;\n")
            for line, key in zip(lines[first:first + 1000], keys[first:first + 1000]):
                script.write(copied_row(key, line))
            script.write("\\.\n")
    begin = time.monotonic()
    run("psql", "-Xqf", fleet.folder + "/copy.sql", database)
    return count / (time.monotonic() - begin)


# ---- Sending ------------------------------------------------------------------------------------------------------------

def frames_of(lines, number, conversation):
    return b"".join(conversation.frame("syslog", f"<134>1 - node{number} zelk 1.json:{place} - - {line}".encode())
                    for place, line in enumerate(lines))


def send_some(conversation, selector):
    """Sends what there is room for."""
    sent = conversation.socket.send(conversation.frames[:1 << 18])
    conversation.frames = conversation.frames[sent:]
    if not conversation.frames:
        selector.modify(conversation.socket, selectors.EVENT_READ, conversation)


def send(lines, conversations):
    """Sends lines over all of the connections at once. Returns how long it took until all were answered for."""
    selector = selectors.DefaultSelector()
    for number, conversation in enumerate(conversations):
        conversation.socket.setblocking(False)
        conversation.frames = memoryview(frames_of(lines[number::len(conversations)], number, conversation))
        selector.register(conversation.socket, selectors.EVENT_READ | selectors.EVENT_WRITE, conversation)
    begin = time.monotonic()
    due = len(lines)
    while due > 0:
        for key, events in selector.select():
            if events & selectors.EVENT_WRITE:
                send_some(key.data, selector)
            if events & selectors.EVENT_READ:
                due -= key.fileobj.recv(1 << 18).count(b"200 OK\n")
    return time.monotonic() - begin


def send_one_each(lines, conversations):
    """Sends a line over each connection. Returns how long it took until all were answered for. What has as little to do as that need
    not be told which answer is there: it is not what sends that shall be measured."""
    frames = [frames_of([line], number, conversation) for number, (conversation, line) in enumerate(zip(conversations, lines))]
    for conversation in conversations:
        conversation.socket.settimeout(None)  # with a time limit each call is two
    steps = [(conversation.socket.send, frame) for conversation, frame in zip(conversations, frames)]
    answers = [conversation.socket.recv for conversation in conversations]
    begin = time.monotonic()
    for send_one, frame in steps:
        send_one(frame)
    for receive in answers:
        answer = receive(32)
        if not answer.endswith(b"200 OK\n"):
            raise SystemExit(f"a line was answered by {answer!r}")
    return time.monotonic() - begin


def measure(what, count, connections, port=2514, database="zelk", is_one_each=False):
    lines = lines_of(count)
    conversations = [Conversation(port, host=f"node{number}") for number in range(connections)]
    copy = copied(10000, database)
    before = cpu_of("zelk-gather\0"), cpu_of("postgres: zelk_writer")
    send_part, size = (send_one_each, connections) if is_one_each else (send, count)
    rate = count / sum(send_part(lines[first:first + size], conversations) for first in range(0, count, size))
    gatherer, sessions = ((after - start) / count * 1e6
                          for after, start in zip((cpu_of("zelk-gather\0"), cpu_of("postgres: zelk_writer")), before))
    copy = (copy + copied(10000, database)) / 2
    row(what, connections, f"{rate:,.0f}", f"{copy:,.0f}", f"{rate / copy:.2f}", f"{gatherer:.1f}", f"{sessions:.1f}")
    for conversation in conversations:
        conversation.close()


def a_commit_each(count):
    """Without a gatherer: a session that puts each line in a commit of its own."""
    lines = lines_of(count)
    with open(fleet.folder + "/put.sql", "w") as script:
        script.writelines(f"SELECT zelk_put('node1', '1.json:{place}', $${line}$$);\n" for place, line in enumerate(lines))
        script.write("SELECT pg_backend_pid() AS own \\gset\n\\echo `cat /proc/:own/schedstat`\n")
    copy = copied(10000)
    begin = time.monotonic()
    took = run("psql", "-XqU", "zelk_writer", "-o", "/dev/null", "-f", fleet.folder + "/put.sql")
    rate = count / (time.monotonic() - begin)
    copy = (copy + copied(10000)) / 2
    row("a commit a line, no zelk-gather", 1, f"{rate:,.0f}", f"{copy:,.0f}", f"{rate / copy:.3f}", "", f"{int(took.split()[0]) / count / 1000:.1f}")


def start_hostile():
    """A node that sends the worst there is, as fast as it is answered."""
    worst = ['{"stack":"' + "\\u0001" * 10000 + '","gap":true}', '{"stack":"a","offset":' + "[" * 60000, "no line" * 9000,
             line_of(1)[:-1] + ',"a":1' * 9000 + "}"]
    process = os.fork()
    if process == 0:
        conversation = Conversation(host="hostile")
        while True:
            conversation.tell(worst, place=str(conversation.sent))
            if conversation.sent > 60:
                conversation.wait(conversation.sent - 60)
    return process


# ---- Nodes --------------------------------------------------------------------------------------------------------------

def make_stacks(stacks, sample, numbers):
    """Full stacks with a copy of the sample's incident for each number, recorded now and with an Error ID of its own."""
    with open(sample, "rb") as stack:
        length, = struct.unpack("=i", stack.read(28)[24:])
        body = stack.read(length)
    # The body has the Error ID at 4, with its own second at 11, and the time at 90. Both are the same second, as in what is recorded.
    second = int(time.time())
    records = [struct.pack("=i", length) + body[:5] + digits(number, 5).encode() + body[10:11] + digits(second, 6).encode() + body[17:90] +
               struct.pack("=i", second) + body[94:] for number in numbers]
    each = (STACK_SIZE - 24) // (4 + length)
    for first in range(0, len(records), each):
        text = b"".join(records[first:first + each])
        header = struct.pack("=5i4x", 0, 24, 24 + len(text), 24, STACK_SIZE)
        with open(f"{stacks}/long{first}", "wb") as stack:
            stack.write((header + text).ljust(STACK_SIZE, b"\0"))


def from_stacks(sample, node_count, count):
    """From full stacks to rows, with all that runs on nodes."""
    copy = copied(10000)
    each = count // node_count
    nodes = [Node(number + 1) for number in range(node_count)]
    for number, node in enumerate(nodes):
        stacks = f"{fleet.folder}/stacks{number}"
        os.mkdir(stacks)
        make_stacks(stacks, sample, range(number * each, (number + 1) * each))
        node.run("sh", "-c", f"cp {stacks}/* /var/adm/zelk/stacks")
        node.start_forward()
    before = cpu_of("zelk-gather\0"), cpu_of("postgres: zelk_writer")
    begin = time.monotonic()
    for node in nodes:
        node.start_spool()
    there = "FROM zelk_incident WHERE incident->>'stack' LIKE 'long%'"
    if not wait_until(lambda: int(query("SELECT count(*) " + there)) >= each * node_count, limit=240, pause=0.2):
        raise SystemExit("only " + query("SELECT count(*) " + there) + " have come in")
    rate = float(query("SELECT count(*) / extract(epoch FROM max(received) - min(received)) " + there))
    gatherer, database = ((after - start) / count * 1e6
                          for after, start in zip((cpu_of("zelk-gather\0"), cpu_of("postgres: zelk_writer")), before))
    copy = (copy + copied(10000)) / 2
    row("full stacks", node_count, f"{rate:,.0f}", f"{copy:,.0f}", f"{rate / copy:.2f}", f"{gatherer:.1f}",
        f"{database:.1f}")
    return nodes


def delays(node, count):
    """From zkrecord on a node until another connection sees the row, in milliseconds."""
    watcher = subprocess.Popen(["psql", "-XqAt"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, env=fleet.environment)

    def sees(key):
        watcher.stdin.write(f"SELECT count(*) FROM zelk_row('{key}');\n")
        watcher.stdin.flush()
        return watcher.stdout.readline() == "1\n"

    taken = []
    for _ in range(count):
        key = node.record("delay", "Disk disk07: 3 unreadable sectors.")
        begin = sum(fleet.ALPHABET.index(digit) << 6 * at for at, digit in enumerate(key[7:13])) + sum(
            fleet.ALPHABET.index(digit) << 6 * at for at, digit in enumerate(key[13:17])) / 1e6
        wait_until(lambda: sees(key), pause=0.0005)
        taken.append((time.time() - begin) * 1000)
        time.sleep(0.01)
    watcher.kill()
    return taken


# ---- Killing ------------------------------------------------------------------------------------------------------------

def killed(kills, count, kill_one):
    """Sends lines, again and again what was not answered, while something is killed. Returns lost and double rows."""
    lines = lines_of(count)
    ending = threading.Event()

    def killer():
        for _ in range(kills):
            time.sleep(random.uniform(0.2, 0.6))
            kill_one()
        ending.set()

    thread = threading.Thread(target=killer)
    thread.start()
    at = 0
    while at < count or not ending.is_set():
        try:
            conversation = Conversation(2514, host="killed")
            while at < count or not ending.is_set():
                part = lines[at % count:at % count + 200]
                conversation.tell(part, place=f"{at}")
                conversation.wait()
                at += len(part)
        except OSError:
            time.sleep(0.05)
    thread.join()
    there = int(query("SELECT count(DISTINCT key) FROM zelk_incident WHERE host = 'killed'"))
    double = int(query("SELECT count(*) - count(DISTINCT key) FROM zelk_incident WHERE host = 'killed'"))
    query("DELETE FROM zelk_incident WHERE host = 'killed'")
    return count - there, double


def killed_forwards(node, start_one, kills, count):
    """Records incidents on a node while what sends its spool is killed. Returns lost and double rows."""
    stack = start_one.__name__
    recorder = node.start_recording(stack, count, stacks=8)
    for _ in range(kills):
        time.sleep(random.uniform(0.2, 0.6))
        kill(node.forward)
        start_one()
    keys = [line.split()[1] for line in recorder.communicate()[0].splitlines()]
    there = f"FROM zelk_incident WHERE incident->>'stack' LIKE '{stack}%'"
    wait_until(lambda: int(query("SELECT count(*) " + there)) >= len(keys), limit=30, pause=0.5)
    found = query("SELECT key " + there).split()
    return len(set(keys) - set(found)), len(found) - len(set(found))


# ---- Questions ----------------------------------------------------------------------------------------------------------

def fill(count, days, chain):
    """Rows of the last days, evenly, in chains of that length. Returns keys of some that have a cause."""
    begin = time.time() - days * 86400
    copy = subprocess.Popen(["psql", "-Xq", "-v", "ON_ERROR_STOP=1"], stdin=subprocess.PIPE, text=True, env=fleet.environment)
    copy.stdin.write("COPY zelk_incident (bucket, time, key, cause, host, incident) FROM STDIN;\n")
    cause = None
    some = []
    for number in range(count):
        second = int(begin + number * days * 86400 / count)
        key = id_of(number, second)
        cause = cause if number % chain else None
        if number % (count // 30) == 1:
            some.append(key)
        copy.stdin.write(copied_row(key, line_of(number, second, cause), cause))
        cause = key
    copy.stdin.write("\\.\n")
    copy.stdin.close()
    copy.wait()
    query("VACUUM ANALYZE")
    query("CHECKPOINT")
    return some


def timed(question):
    """Seconds of CPU, and MiB of memory, that a question takes in a session of its own."""
    session = subprocess.Popen(["psql", "-XqAtU", "zelk_reader"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, env=fleet.environment)

    def ask(text):
        session.stdin.write(text + ";\n")
        session.stdin.flush()
        return session.stdout.readline().strip()

    backend = ask("SELECT pg_backend_pid()")
    ask("SET max_parallel_workers_per_gather = 0; SELECT 1")

    def cpu():
        return int(open(f"/proc/{backend}/schedstat").read().split()[0]) / 1e9

    begin = cpu()
    session.stdin.write(f"SELECT count(*) FROM ({question}) answer;\n")
    session.stdin.flush()
    most = 0
    while not select.select([session.stdout], [], [], 0.02)[0]:
        status = open(f"/proc/{backend}/status").read()
        most = max(most, int(status.split("RssAnon:")[1].split()[0]) // 1024)
    took = cpu() - begin
    session.kill()
    return f"{took:.2f} s of CPU, {most} MiB"


def chain_times(what, keys, database="zelk"):
    """How long a chain takes: the first question of a connection, and its third. The CPU is that of all processes of the server."""
    taken = []
    for key in keys:
        asking = subprocess.Popen(["psql", "-XqAtU", "zelk_reader", database], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                  env=fleet.environment)

        def cost(question):
            begin = cpu_of("postgres: "), time.monotonic()
            asking.stdin.write(question)
            asking.stdin.flush()
            asking.stdout.readline()
            return (time.monotonic() - begin[1]) * 1000, (cpu_of("postgres: ") - begin[0]) * 1000

        cost("SELECT;\n\\echo connected\n")
        first, _, third = (cost(f"SELECT count(incident) FROM zelk_chain('{key}');\n") for _ in range(3))
        asking.kill()
        asking.wait()
        taken.append(first + third)
    first, first_cpu, third, third_cpu = (statistics.median(times[at] for times in taken) for at in range(4))
    row(f"`zelk_chain` in {what}, median: the first of a connection, its third",
        f"{first:.1f} ms ({first_cpu:.1f} of CPU), {third:.1f} ms ({third_cpu:.1f})")


def bytes_a_row():
    rows = int(query("SELECT count(*) FROM zelk_incident"))
    size = float(query("SELECT sum(pg_total_relation_size(relid)) FROM pg_partition_tree('zelk_incident')"))
    row(f"bytes a row of {rows:,}", f"{size / rows:.0f}")


# ---- Parts --------------------------------------------------------------------------------------------------------------

def start_middle():
    return start_gatherer("--listen=*:2514", f"--database={fleet.conninfo()}")


def rates():
    print(f"The disk synchronises {disk():,.0f} times a second. COPY, beside each, has 1,000 rows a commit.\n")
    heading("from", "nodes or connections", "lines a second", "COPY", "of it", "CPU us a line: zelk-gather", "its sessions")
    a_commit_each(500)
    measure("RELP", 30000, 1)
    measure("RELP", 30000, 10)
    measure("RELP", 30000, 1000)
    measure("RELP, one line each", 10000, 1000, is_one_each=True)
    start_gatherer("--listen=127.0.0.1:2515", "--relay=127.0.0.1:2514", port=2515, name="relay")
    measure("RELP through a relay", 30000, 10, port=2515)
    hostile = start_hostile()
    measure("RELP beside a hostile node", 30000, 10)
    os.kill(hostile, signal.SIGKILL)
    os.waitpid(hostile, 0)
    print()


def from_nodes():
    sample = fleet.folder + "/sample"
    run("zkrecord", "-q", "-C", "-d", "slot 7 of enclosure 1\nretries    16", "--file=dm_scan.c", "--line=412",
        "--product=stn.node", sample, "Disk %s: %d unreadable sectors, the first at %d.", "disk07", "3", "8589934712")
    heading("from", "nodes or connections", "lines a second", "COPY", "of it", "CPU us a line: zelk-gather", "its sessions")
    nodes = from_stacks(sample, 10, 10000)
    print()
    heading("what", "measured")
    taken = sorted(delays(nodes[0], 200))
    row("from zkrecord until the row is seen, median and 99 of 100",
        f"{statistics.median(taken):.1f} ms, {taken[int(len(taken) * 0.99)]:.1f} ms")
    row("20 kills of a node's zelk-forward: rows lost, double", "%d, %d" % killed_forwards(nodes[0], nodes[0].start_forward, 20, 800))

    def start_rsyslog():
        nodes[1].run("rm", "-rf", "/run/zelk-forward")
        nodes[1].start_rsyslog()

    kill(nodes[1].forward)
    start_rsyslog()
    row("20 kills of a node's rsyslog: rows lost, double", "%d, %d" % killed_forwards(nodes[1], start_rsyslog, 20, 800))
    for node in nodes:
        kill(node.spool)
        kill(node.forward)


def kills():
    def kill_gatherer():
        global gatherer
        kill(gatherer)
        gatherer = start_middle()

    def kill_database():
        fleet.kill_cluster()
        fleet.start_cluster()

    heading("what", "measured")
    row("20 kills of zelk-gather: rows lost, double", "%d, %d" % killed(20, 20000, kill_gatherer))
    row("20 kills of PostgreSQL: rows lost, double", "%d, %d" % killed(20, 20000, kill_database))


def questions():
    heading("what", "measured")
    keys = fill(1_000_000, 100, 4)
    row("`zelk_first_causes` of 1,000,000 rows of 100 days", timed("SELECT * FROM zelk_first_causes(now() - interval '101 days')"))
    row("the same of the last day", timed("SELECT * FROM zelk_first_causes(now() - interval '1 day')"))
    chain_times("1,000,000 rows", keys)
    bytes_a_row()


def long_chain():
    heading("what", "measured")
    fill(100_000, 1, 100_000)
    row("`zelk_first_causes` of one chain of 100,000", timed("SELECT * FROM zelk_first_causes(now() - interval '2 days')"))
    key = query("SELECT key FROM zelk_incident WHERE cause IS NULL")
    row("`zelk_chain` of it", timed(f"SELECT * FROM zelk_chain('{key}')"))
    key = query("SELECT key FROM zelk_incident ORDER BY time DESC LIMIT 1")
    row("the same from its last incident", timed(f"SELECT * FROM zelk_chain('{key}')"))


def many_rows():
    """The intake where the table is large, beside one where it is empty, in turns."""
    rows = 10_000_000
    keys = fill(rows, 100, 4)
    make_empty("empty")
    start_gatherer("--listen=127.0.0.1:2516", f"--database={fleet.conninfo('empty')}", port=2516, name="empty")
    heading("from", "nodes or connections", "lines a second", "COPY", "of it", "CPU us a line: zelk-gather", "its sessions")
    for _ in range(3):
        measure("RELP into no rows", 30000, 10, port=2516, database="empty")
        measure(f"RELP into {rows:,} rows", 30000, 10)
    print()
    heading("what", "measured")
    chain_times(f"{rows:,} rows", keys)
    row(f"`zelk_first_causes` of the last day of {rows:,} rows of 100 days", timed("SELECT * FROM zelk_first_causes(now() - interval '1 day')"))
    bytes_a_row()


def many_databases():
    """Rows that 16 databases share, set up as an administrator does; what one more or one less costs a chain."""
    names = [f"part{number}" for number in range(16)]
    for name in names:
        run("createdb", name)
    run(*fleet.as_postgres("env", f"ZELK_SHARE={fleet.FLEET}", fleet.FLEET + "/zelk-middle-setup",
                           *[f"--database=host={fleet.folder} dbname={name} user=postgres" for name in names]), stderr=fleet.log)
    start_gatherer("--listen=127.0.0.1:2517", "--sessions=1", *[f"--database={fleet.conninfo(name)}" for name in names], port=2517, name="parts")
    heading("from", "nodes or connections", "lines a second", "COPY", "of it", "CPU us a line: zelk-gather", "its sessions")
    measure("RELP into 16 databases", 30000, 10, port=2517)
    print()

    lines, keys, cause = [], [], None
    for number in range(100_000):
        cause = cause if number % 4 else None
        if number % 4000 == 1:
            keys.append(id_of(number, fleet.SECOND - 1))
        lines.append(line_of(number, fleet.SECOND - 1, cause))
        cause = id_of(number, fleet.SECOND - 1)
    send(lines, [Conversation(2517, host=f"node{number}") for number in range(10)])
    heading("what", "measured")
    here = [int(query("SELECT count(*) FROM zelk_incident_here", name)) for name in names]
    row("rows of 130,000 in one of 16 databases, fewest and most", f"{min(here):,}, {max(here):,}")
    length, = set(query(f"SELECT count(*) FROM zelk_chain('{key}')", name) for key, name in zip(keys, names))
    row("incidents of a chain of 4 that each of them finds", length)
    chain_times("130,000 rows of 16 databases", keys, names[0])


def page():
    heading("what", "measured")
    fill(1_000_000, 0.99, 4)
    os.mkdir(fleet.folder + "/page")
    begin = time.monotonic()
    run(fleet.FLEET + "/zelk-page", fleet.folder + "/page", stderr=fleet.log)
    row("`zelk-page` of 1,000,000 incidents of the last day", f"{time.monotonic() - begin:.1f} s")


PARTS = {"rates": rates, "nodes": from_nodes, "kills": kills, "questions": questions, "long_chain": long_chain, "many_rows": many_rows,
         "databases": many_databases, "page": page}


def make_empty(database):
    fleet.make_database(database)
    for month in range(5):
        query(f"SELECT zelk_make_partition(now() - {month} * interval '1 month')", database)
    query("SELECT zelk_make_partition(to_timestamp(%d))" % fleet.SECOND, database)


def main():
    global gatherer
    parts = sys.argv[1:] or list(PARTS)
    fleet.make_cluster()
    for part in parts:
        make_empty("zelk")
        gatherer = start_middle()
        PARTS[part]()
        row("memory of zelk-gather", f"{memory_of(gatherer.pid)} MiB")
        print()
        for process in list(fleet.processes):
            kill(process)
        run("dropdb", "--force", "zelk")


def allow_watches(count):
    """Lets root watch files in that many processes, since all nodes are on one machine. Returns how many it were."""
    with open("/proc/sys/fs/inotify/max_user_instances", "r+") as setting:
        before = int(setting.read())
        setting.seek(0)
        setting.write(str(count))
    return before


fleet.enter(os.path.abspath(__file__))
watches = allow_watches(1024)
try:
    main()
finally:
    allow_watches(watches)
