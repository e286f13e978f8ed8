# SPDX-License-Identifier: MIT
"""Tries what is in fleet/ as a whole; script/test-fleet runs it. Each story below is one that must not end otherwise, whatever is
killed meanwhile and whoever sends what."""
import base64
import datetime
import os
import random
import re
import signal
import socket
import ssl
import struct
import subprocess
import sys
import threading
import time

import fleet
from fleet import ALPHABET, Conversation, Node, expect, id_of, kill, line_of, make_certificate, put, query, run, start_gatherer, wait_until


def rows(condition="true", database="zelk", host=None):
    return int(query(f"SELECT count(*) FROM zelk_incident WHERE {condition}", database, host=host))


def reason_of(host):
    return query(f"SELECT string_agg(reason, '; ' ORDER BY place) FROM zelk_rejected WHERE host = '{host}'")


def says(gatherer, what):
    """Whether a gatherer has said that by now, of how it stands too."""
    gatherer.send_signal(signal.SIGUSR1)
    return what in open(gatherer.log).read()


# ---- Lines --------------------------------------------------------------------------------------------------------------

def lines_that_are_none():
    line = line_of(1)
    for place, bad in {
        "text": "no incident",
        "not text": b"\377\376" + line.encode(),
        "a NUL": b"a \0 byte",
        "a NUL, escaped": line.replace("slot 7", "slot\\u0000"),
        "half a pair": line.replace("slot 7", "slot\\ud800"),
        "deep": '{"stack":"deep","offset":' + "[" * 30000,
        "a number that takes long": line.replace("8589934712", "1e131071"),
        "a number that nobody reads": line.replace("8589934712", "1e+999"),
        "a long offset": line.replace('"offset":24', '"offset":' + "9" * 30),
        "31st of June": line.replace('"time":"2026-11-25', '"time":"2026-06-31'),
        "second 60": line.replace(':30Z"', ':60Z"'),
        "another time than its Error ID's": line.replace('.000997Z', '.000998Z'),
        "a long Error ID": line.replace(id_of(1), id_of(1) + "."),
        "two of one name": line.replace('"details":', '"details":"","details":'),
        "one is missing": line.replace('"cause":null,', ""),
        "one is null": line.replace('"name":"diskmon"', '"name":null'),
        "one too many": line[:-1] + ',"more":1}',
        "another order": line.replace('"id":4711,"parent":1', '"parent":1,"id":4711'),
        "a text for a number": line.replace('"offset":24', '"offset":"24"'),
        "blanks": line.replace(",", ", "),
        "carriage return": line + "\r",
        "an argument of another type": line.replace('"type":"int"', '"type":"pointer"'),
        "an argument that is too large": line.replace('"value":3', '"value":2147483648'),
        "an address with too many digits": line.replace('"type":"string","value":"disk07"', '"type":"pointer","value":"0x' + "1" * 17 + '"'),
        "an int that is a long": line.replace('"value":3}', '"value":-2147483649}'),
        "a line that looks like bytes": "\\x" + line.encode().hex(),
        "a node that is none": line.replace('"node":"192.0.2.2"', '"node":"192.0.2"'),
        "a year that is none": line.replace('"time":"2026', '"time":"20026'),
        "bytes of another text": line.replace('"details"', '"description_base64":"/w==","details"'),
        "bytes that are text": line.replace('"details"', '"description_base64":"YQ==","details"'),
        "an argument without value": line.replace(',"value":3', ""),
        "an argument that is a list": line.replace('"value":3', '"value":[]'),
        "a gap that is none": '{"stack":"disks","gap":1}',
        "a gap with more": '{"stack":"disks","offset":1,"gap":true}',
        "an error of another name": '{"stack":"disks","error":{"code":-26,"name":"ZELK_LOCK","reason":"x"}}',
        "DEL as it stands": line.replace("slot 7", "slot \x7f"),
        "a C1 control as it stands": line.replace("slot 7", "slot \u009b"),
        "a name of another letter": line.replace('"id_time"', '"id.time"'),
        "a bracket elsewhere": line.replace('"id":4711,', '"id":4711},'),
        "a second number": line.replace('"offset":24,', '"offset":24,:5,'),
        "an argument without brackets": line.replace('{"type":"int","value":3}', 'i3}'),
        "numbers with zeros": line.replace('"parent":1', '"parent":01'),
        "an address that is none": line.replace("192.0.2.2", "192.0.2.256"),
        "an error without reason": '{"stack":"disks","error":{"code":-1,"name":"X"}}',
    }.items():
        put([bad], host="bad", place=place.replace(" ", "_").replace(",", "").replace("'", ""))
    expect("all of them are kept, with the reason", query("SELECT count(*) FROM zelk_rejected WHERE host = 'bad'"), "44")
    expect("none has become a row", rows("host = 'bad'"), 0)
    expect("bytes that are no text are kept as they came",
           query("SELECT encode(line, 'hex') FROM zelk_rejected WHERE host = 'bad' AND place LIKE 'a_NUL:%'"),
           b"a \0 byte".hex())
    expect("and so is what looks like bytes", query("SELECT left(convert_from(line, 'UTF8'), 6) FROM zelk_rejected WHERE "
           "host = 'bad' AND place LIKE 'a_line_that_looks%'"), "\\x7b22")


def any_double(chance):
    """A number of any size, written in one of the ways in which JSON could have it."""
    number = chance.choice([chance.uniform(-9, 9), struct.unpack("d", chance.randbytes(8))[0], float(chance.randrange(1 << 73)), 2.0 ** chance.randrange(-90, 90),
                            chance.randrange(1000) * 10.0 ** chance.randrange(-9, 24), chance.randrange(1000) / 1000])
    return chance.choice([repr(number), "%.17g" % number, "%.3e" % number, "%f" % number, "1e23", "9.999999999999999e+22", "1e+23", "1E2", "0.50",
                          "-0.0", "1e+05", "100000.0", "1.7976931348623157e+308", "5e-324", '"nan"'])


def with_other_id(line, known, chance):
    """An Error ID with another time, and bytes that are none of a text in what nothing is decoded of."""
    seconds = chance.choice(["......", "zzzzz.", "zzzzzz", known[7:13]])
    microseconds = chance.choice(["....", "zzzz", "Fa11", "Da1/", "zo11", known[13:17]])
    made = known[0] + chance.choice([known[1:7], known[1:5] + "\ufffd\ufffd"]) + seconds + microseconds + known[17:]
    count = sum(ALPHABET.index(digit) << 6 * place for place, digit in enumerate(seconds))
    told = (datetime.datetime(1970, 1, 1) + datetime.timedelta(seconds=count)).strftime("%Y-%m-%dT%H:%M:%S")
    told += ".%06dZ" % sum(ALPHABET.index(digit) << 6 * place for place, digit in enumerate(microseconds))
    raw = base64.b64encode(made.encode().replace("\ufffd".encode(), b"\xff")).decode()
    bytes_beside = f',"id_base64":"{raw}"' if "\ufffd" in made else ""
    line = line.replace(f'"{known}"', f'"{made}"{bytes_beside}')
    return re.sub(',"id_time":"[^"]*"', chance.choice([f',"id_time":"{told}"', ""]), line)


def judged(count, chance):
    """Lines that are nearly such of zkexport, each from another number."""
    pieces = ['"', "\\", "\\u00e9", "\\u000b", "\\u000B", "\\u007f", "\\u009F", "\\b", "{", "}", "[", "]", ",", ":", "null", "true", "0", "-",
              "1", "1e5", ".5", '"":', "\x7f", "\u0080", "\u00e9", '"gap":true', ',"details":""', "9" * 25, "T", "Z", "\ufffd", "=", "\t"]
    names = [f"ZELK_{name}" for name in ("FAILURE", "LOCK", "FILE_CORRUPT", "UNSUPPORTED", "INV_PARAM1", "FILE_EXIST")]
    for number in range(count):
        line = chance.choice([
            line_of(1000 + number),
            line_of(1000 + number).replace("slot 7", "\\u001B[31m\\u007f\\u009f\\b\\f \u00e9"),
            line_of(1000 + number).replace('"1.7"', '"a\ufffd","version_base64":"Yf8="'),
            line_of(1000 + number).replace('","details"', '","cut":true,"details"').replace('"cut"', chance.choice(['"cut"', 'cut'])),
            line_of(1000 + number).replace('"value":0.5', '"value":' + any_double(chance)),
            with_other_id(line_of(1000 + number), id_of(1000 + number), chance),
            line_of(1000 + number).replace("192.0.2.2", chance.choice(["2001:db8::7", "::1", "::ffff:10.1.2.3", "10.1.2.03"])),
            f'{{"stack":"s{number}","gap":true}}',
            f'{{"stack":"s{number}","error":{{"code":{-chance.choice([1, 2, 26, 27, 28, 99, 12])},"name":"{chance.choice(names)}",'
            f'"offset":{chance.choice(["0", "24", "-1"])},"reason":"\u00e9"}}}}'])
        for _ in range(chance.choice([0, 0, 1, 2])):
            at = chance.randrange(len(line))
            line = line[:at] + chance.choice(pieces) + line[at + chance.randrange(4):]
        yield line


def one_judge():
    """A line that zelk_put takes and zkexport does not, or the other way round, would poison the chain that it hangs on."""
    seed = int.from_bytes(os.urandom(4), "big")
    lines = list(judged(4000, random.Random(seed)))

    def exported(what):
        answer = subprocess.run(["zkexport", "--input"], input="\n".join(what) + "\n", text=True, capture_output=True)
        return answer.returncode, answer.stdout.splitlines()

    put(lines, host="judge")
    array = "ARRAY[" + ",".join("$Q$" + line + "$Q$" for line in lines) + "]"
    expect("what is told at a glance is what a reading tells", query(f"""
        SELECT count(*) > 200, count(*) FILTER (WHERE (said.kind, said.key, said.cause) IS DISTINCT FROM
                                                       ('incident', usual.key, usual.cause) OR (usual.at, usual.bucket) <> (zelk_time(said.key), zelk_bucket(said.key)))
          FROM unnest({array}) line, zelk_usual(line) usual, zelk_read('judge', line) said WHERE zelk_are_usual(usual.rest)"""), "t|0")
    expect("two lines are usual together when each of them is", query(f"""
        SELECT count(*) FILTER (WHERE is_one) > 200, count(*) FILTER (WHERE NOT is_one) > 50,
               count(*) FILTER (WHERE zelk_are_usual(rest || other) <> (is_one AND zelk_are_usual(other)))
          FROM (SELECT rest, lead(rest) OVER () AS other, zelk_are_usual(rest) AS is_one FROM unnest({array}) line, zelk_usual(line)) each"""), "t|t|0")
    taken = query("SELECT incident FROM zelk_incident WHERE host = 'judge' UNION ALL "
                  "SELECT notice FROM zelk_notice WHERE host = 'judge'").splitlines()
    status, read = exported(taken)
    expect(f"zkexport reads each of {len(taken)} lines that were taken, and would write them (seed {seed})",
           (status, set(taken) ^ set(read)), (0, set()))
    written = exported(lines)[1]
    put(written, host="again")
    expect(f"each of {len(written)} lines that it writes of those is taken", query(
        "SELECT reason, convert_from(line, 'UTF8') FROM zelk_rejected WHERE host = 'again' AND reason NOT LIKE 'another%'"), "")
    expect("all lines came to a table", query("SELECT (SELECT count(*) FROM zelk_incident WHERE host = 'judge') + "
           "(SELECT count(*) FROM zelk_rejected WHERE host = 'judge') + "
           "(SELECT count(*) FROM zelk_notice WHERE host = 'judge')"), "4000")


def what_recorders_write():
    """Texts of every kind, as zkexport gives them, are lines."""
    stack = fleet.folder + "/texts"
    texts = ["plain", "caf\u00e9 \U0001F4A9", "\x01\x0b\x1b[31m\x1f\x7f", "\u0080\u009f", "back\\slash \\u001b \"quoted\"",
             "tab\tnewline\n"]
    for text in texts:
        run("zkrecord", "-q", "-C", "--product=" + text, "-d", text, stack, "%s at %g and %d", text, "1e300", "-5")
    subprocess.run(["zkrecord", "-q", "-d", b"\xff\xfe", "--product", b"\xc3", stack, b"%s", b"\x80"], check=True)
    lines = run("zkexport", stack).splitlines()
    put(lines, host="texts")
    expect("all that zkexport writes is a line", (rows("host = 'texts'"), reason_of("texts")), (len(texts) + 1, ""))


def one_row_a_key():
    line = line_of(7000)
    put([line, line, line.replace("7:09:30Z", "7:09:32Z")], host="once")
    put([line.replace("7:09:30Z", "7:09:31Z")], host="once", place="later")
    put([line.replace('"stack":"disks"', '"stack":"copy of disks"')], host="once", place="copy")
    expect("an incident that comes again is one row, wherever it lies", (rows("host = 'once'"), reason_of("once")),
           (1, "; ".join(["another incident has this Error ID"] * 2)))

    lines = [line_of(20000 + number) for number in range(2000)]
    sessions = [threading.Thread(target=put, args=(part,), kwargs={"host": f"twin{number}"})
                for number, part in enumerate([lines, lines[::-1], sorted(lines, key=hash)])]
    for session in sessions:
        session.start()
    for session in sessions:
        session.join()
    many = "{" + ",".join('"' + line.replace("\\", "\\\\").replace('"', '\\"') + '"' for line in lines) + "}"
    copies = [subprocess.Popen(["psql", "-Xq", "-v", "ON_ERROR_STOP=1", "-U", "zelk_writer", "zelk"], stdin=subprocess.PIPE,
                               stdout=fleet.log, stderr=fleet.log, text=True) for _ in range(3)]
    for copy in copies:
        copy.stdin.write(f"SELECT zelk_put_many('{{}}', '{{}}', '{many}');")
        copy.stdin.close()
    expect("sessions with the same lines do not wait in a circle", [copy.wait() for copy in copies], [0, 0, 0])
    expect("and each line is there once", rows("host LIKE 'twin%' OR host = ''"), 2000)


def nameless():
    """Incidents without an Error ID, as programs of old record them."""
    line = line_of(3).replace(f'"{id_of(3)}"', "null").replace('"id_time":"2026-11-25T07:09:30.002991Z","node":"192.0.2.2",', "")
    put([line, line, line.replace('"offset":24', '"offset":300')], host="old")
    expect("they are told apart by what they say", rows("host = 'old' AND key LIKE '#%'"), 2)
    put([line_of(9100)], host="-")
    expect("in the open a node need not say who it is", query(f"SELECT host FROM zelk_incident WHERE key = '{id_of(9100)}'"), "")


def gaps():
    gap = '{"stack":"busy","gap":true}'
    put([gap, gap], host="gaps")
    put([gap, gap], host="gaps")
    expect("a second gap of a stack is kept, the same one is not", query(
        "SELECT gaps FROM zelk_gaps WHERE host = 'gaps' AND stack = 'busy'"), "2")


def months():
    """A month's rows find their partition, and nobody waits for it."""
    first = 1_767_225_600  # 2026-01-01 00:00:00 UTC
    put([line_of(1, first), line_of(2, first - 1), line_of(3, first + 86400 * 31 - 1)], host="months")
    query("SELECT zelk_make_partition('2026-01-15')")
    expect("rows move into the partition of their month, its first second too", query(
        "SELECT string_agg(tableoid::regclass::text, ' ' ORDER BY time) FROM zelk_incident WHERE host = 'months'"),
        "zelk_incident_other zelk_incident_2026_01 zelk_incident_2026_01")

    this = query("SELECT 'zelk_incident_' || to_char(now() AT TIME ZONE 'UTC', 'YYYY_MM')")
    query(f"DROP TABLE {this}")
    asking = subprocess.Popen(["psql", "-Xqc", "BEGIN; SELECT count(*) FROM zelk_incident; SELECT pg_sleep(3)", "zelk"],
                              stdout=fleet.log)
    time.sleep(0.5)
    begin = time.monotonic()
    put([line_of(4, int(time.time()))], host="now")
    expect("a long question does not hold up a new month", time.monotonic() - begin < 1, True)
    asking.wait()
    query("SELECT zelk_make_partition(now())")
    expect("its rows move in later", query("SELECT tableoid::regclass FROM zelk_incident WHERE host = 'now'"), this)
    until_its_end = query("SELECT now() - '2026-01-31 00:00:00Z'")
    expect("a month stays as long as a part of it is young enough", query(f"SELECT zelk_drop_before('{until_its_end}')"), "0")
    expect("old months go as a whole", query("SELECT zelk_drop_before(interval '200 days')"), "1")
    expect("and what waited among the others", rows("host = 'months'"), 0)


def who_may():
    for text in ("SELECT count(*) FROM zelk_incident", "SELECT zelk_make_partition(now())", "SELECT zelk_time('')",
                 "CREATE TEMPORARY TABLE mine (a int)"):
        answer = subprocess.run(["psql", "-XqAtU", "zelk_writer", "-c", text, "zelk"], capture_output=True, text=True)
        expect(f"who writes may not: {text}", "permission denied" in answer.stderr, True)


# ---- Questions ----------------------------------------------------------------------------------------------------------

def questions():
    second = fleet.SECOND + 1000
    chain = [line_of(number, second + number, id_of(number - 1, second + number - 1) if number else None)
             for number in range(300)]
    key = [id_of(number, second + number) for number in range(300)]
    circle = [line_of(500, second, id_of(501, second)), line_of(501, second, id_of(500, second))]
    absent = [line_of(600 + number, second, id_of(599, second)) for number in range(3)]
    put([*chain, *circle, *absent], host="asked")
    expect("causes lead to the first one", query(
        f"SELECT count(*), max(depth), (array_agg(key ORDER BY depth DESC))[1] FROM zelk_causes('{key[299]}')"),
        f"300|299|{key[0]}")
    expect("effects come behind their causes", query(
        f"SELECT string_agg(key, ' ') FROM (SELECT key FROM zelk_effects('{key[297]}')) each"), " ".join(key[297:]))
    expect("a circle comes to an end", query(f"SELECT count(*) FROM zelk_chain('{id_of(500, second)}')"), "2")
    expect("a cause that has not come in has its effects", query(
        f"SELECT count(*), count(host) FROM zelk_chain('{id_of(601, second)}')"), "4|3")
    expect("first causes have their effects, also of what is older", query(
        f"SELECT string_agg(effects || ' ' || key, ',') FROM (SELECT * FROM zelk_first_causes(to_timestamp({second + 100}))"
        f" WHERE at < to_timestamp({second + 9000})) each"), f"200 {key[0]}")
    expect("and of what has not come in", query(
        f"SELECT effects FROM zelk_first_causes(to_timestamp({second})) WHERE key = '{id_of(599, second)}'"), "3")
    expect("plain columns", query(f"SELECT process, pid, line, product FROM zelk_plain WHERE key = '{key[0]}'"),
           "diskmon|4711|412|stn.node")


def checks():
    """What zelk-check says to monitoring: status, and what is amiss."""
    fleet.make_database("checked")

    def check(*options, **variables):
        answer = subprocess.run([fleet.FLEET + "/zelk-check", *options], capture_output=True, text=True,
                                env=fleet.environment | {"PGUSER": "zelk_reader", "PGDATABASE": "checked"} | variables)
        return answer.returncode, answer.stdout.partition(" |")[0].removeprefix("ZELK ").strip()

    def arrives(host, line):
        query(f"SELECT zelk_put('{host}', '1', $${line}$$)", "checked")

    def is_late(number, seconds):
        arrives("here", line_of(number, int(time.time()) - seconds))
        status, text = check()
        return status, text.partition(" - ")[0], re.sub(r"\d+ s", "", text.partition(",")[0].partition(" - ")[2])

    query("INSERT INTO zelk_node VALUES ('gone', now() - interval '2 days'), ('new', now())", "checked")
    expect("a node from which nothing came for a day is silent, a new one is not yet", check(), (1, "WARNING - 1 of 2 nodes silent for 1 day"))
    query("UPDATE zelk_node SET host = 'here' WHERE host = 'new'; UPDATE zelk_node SET added = added - interval '2 days'", "checked")
    expect("all of them are critical", check(), (2, "CRITICAL - all 2 nodes are silent"))
    for host in ("here", "gone"):
        arrives(host, line_of(1 if host == "here" else 2, int(time.time())))
    expect("all is well", check(), (0, "OK - the incidents of 2 nodes arrive"))
    arrives("here", '{"stack":"busy","gap":true}')
    arrives("here", "no incident")
    expect("gaps and rejected lines are warnings", check(), (1, "WARNING - 1 gaps in 1 day, 1 lines rejected in 1 day"))
    expect("an intake that is late is a warning, then critical", [is_late(3, 100), is_late(4, 1000)], [
        (1, "WARNING", "the intake is  behind"), (2, "CRITICAL", "the intake is  behind")])
    expect("no answer is critical", check(PGHOST="/nowhere")[0], 2)
    expect("what cannot be asked is unknown", [check(PGDATABASE="nowhere")[0], check("--behind=x")[0], check("--what")[0]], [3, 3, 3])


# ---- Frames -------------------------------------------------------------------------------------------------------------

def hostile_frames(gatherer):
    opening = b"1 open 0\n"
    for frame in (b"\0" * 100, b"GET / HTTP/1.1\r\n\r\n", b"99999999999 open 0\n", b"1 open -1\n",
                  b"2 open 0\n", b"1 syslog 1 x\n", opening + b"3 syslog 1 x\n", opening + b"2 syslog 1000000000 x",
                  opening + b"2 syslog 65537 " + b"x" * 65537 + b"\n", opening + b"2 syslog 3 abcdef\n",
                  opening + b"2 rsp 6 200 OK\n", b"1 " + b"o" * 100000, b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03"):
        conversation = Conversation(is_open=False)
        conversation.socket.sendall(frame)
        try:
            while conversation.socket.recv(4096):
                pass
            is_ended = True
        except ConnectionResetError:
            is_ended = True
        except socket.timeout:
            is_ended = False
        conversation.close()
        if not is_ended:
            expect(f"a frame that is none ends its connection: {frame[:40]!r}", "open", "ended")
    expect("nothing that a node sends ends the gatherer", gatherer.poll(), None)
    expect("the log says why", "a frame that is none: no number" in open(gatherer.log).read(), True)


def neighbours():
    """How long the others wait beside a node that sends the worst there is, as fast as it can."""
    # Deep, long, full of numbers and escapes, and such that are nearly right.
    worst = ['{"stack":"' + "\\u0001" * 10000 + '","gap":true}', line_of(1).replace("slot 7", "\\u009f" * 10000),
             line_of(2).replace('"value":0.5', '"value":' + ",".join(["1e+300"] * 9000)),
             '{"stack":"a","offset":' + "[" * 60000, "{" * 60000, line_of(3)[:-1] + ',"a":1' * 9000 + "}"]
    ending = threading.Event()

    def flood():
        number = 0
        conversation = Conversation(host="flood")
        while not ending.is_set():
            conversation.tell(worst, place=f"f{number}")
            number += 1
            if conversation.sent > 60:
                conversation.wait(conversation.sent - 60)
        conversation.close()

    floods = [threading.Thread(target=flood) for _ in range(3)]
    for thread in floods:
        thread.start()
    quiet = Conversation(host="quiet")
    delays = []
    for number in range(20):
        begin = time.monotonic()
        quiet.tell([line_of(40000 + number)])
        quiet.wait()
        delays.append(time.monotonic() - begin)
        time.sleep(0.05)
    ending.set()
    for thread in floods:
        thread.join()
    expect(f"three hostile nodes delay another by {max(delays):.2f} s at most, by {sorted(delays)[10]:.3f} s as a rule",
           max(delays) < 1, True)


def half_open(begun, silent):
    """Connections that say nothing, opened before all the rest."""
    time.sleep(max(0, begun + 12 - time.monotonic()))
    ended = 0
    for connection in silent:
        connection.settimeout(0.01)
        try:
            ended += connection.recv(100) == b""
        except socket.timeout:
            pass
    expect("connections that say nothing are closed after ten seconds", ended, len(silent))


def vanish(gatherer):
    """A node tells 1,000 lines and loses power before they are answered for: no FIN, no RST, nothing."""
    node = Node(4)
    script = """import fleet, time
conversation = fleet.Conversation(address="%s", host="vanished")
conversation.tell([fleet.line_of(number) for number in range(500000, 501000)])
print("told", flush=True)
time.sleep(1000)""" % fleet.HERE
    query("ALTER TABLE zelk_incident RENAME TO zelk_away")  # so that lines wait
    telling = subprocess.Popen([*node.enter(), sys.executable, "-c", script], stdout=subprocess.PIPE, text=True,
                               env=fleet.environment | {"PYTHONPATH": fleet.REPOSITORY + "/tests"})
    telling.stdout.readline()
    if not wait_until(lambda: says(gatherer, "; 1000 lines (")):
        raise SystemExit("the lines do not wait: " + open(gatherer.log).read())
    node.cut_off()
    query("ALTER TABLE zelk_away RENAME TO zelk_incident")
    return node


def vanished(node, gatherer):
    """Nobody says that it is gone, and still nothing is kept for it. Once it is back it tells all again."""
    expect("what a node told before it vanished is there", wait_until(lambda: rows("host = 'vanished'") == 1000), True)
    expect("its connection ends by itself", wait_until(
        lambda: f"{node.address} port" in open(gatherer.log).read(), limit=70), True)
    node.connect()
    put([line_of(number) for number in range(500000, 501000)], host="vanished")
    expect("and is not there twice when it is told again", rows("host = 'vanished'"), 1000)


# ---- Killing ------------------------------------------------------------------------------------------------------------

def killed_gatherers():
    """Of 20 gatherers that are killed, and one that is asked to end, none has answered for what is not there."""
    acknowledged = 0
    for number in range(20):
        gatherer = start_gatherer("--listen=127.0.0.1:2600", f"--database={fleet.conninfo()}", port=2600, name="killed")
        conversation = Conversation(2600, host=f"kill{number}")
        conversation.tell([line_of(100000 + number * 500 + line) for line in range(500)])
        try:
            conversation.wait(random.randrange(1, 400))
            if number == 19:
                begin = time.monotonic()
                gatherer.terminate()
                expect("a gatherer that is asked to ends with 0", (gatherer.wait(), time.monotonic() - begin < 5), (0, True))
            else:
                kill(gatherer)
            conversation.wait()
        except OSError:
            pass
        acknowledged += conversation.answered - 1
        missing = conversation.answered - 1 - rows(f"host = 'kill{number}' AND key = ANY(ARRAY[" + ",".join(
            f"'{id_of(100000 + number * 500 + line)}'" for line in range(conversation.answered - 1)) + "]::text[])")
        if missing:
            expect(f"gatherer {number}: lines that were acknowledged and are lost", missing, 0)
    expect(f"all of {acknowledged} acknowledged lines are there", acknowledged >= 20, True)


def away():
    """While the database is away nothing is acknowledged, and nothing lost."""
    fleet.kill_cluster()
    conversation = Conversation(host="away")
    conversation.tell([line_of(60000 + number) for number in range(5000)])
    time.sleep(1)
    answered = conversation.answered
    fleet.start_cluster()
    conversation.wait()
    expect("lines wait for the database", (answered, rows("host = 'away'")), (1, 5000))


def failover():
    """The primary is killed and its synchronous standby promoted: nodes do not notice."""
    fleet.make_standby()
    standby = fleet.folder + "/standby-socket"
    gatherer = start_gatherer("--listen=127.0.0.1:2630", f"--database=host={fleet.folder},{standby} dbname=zelk user=zelk_writer "
                              "target_session_attrs=read-write", port=2630, name="failover")
    conversation = Conversation(2630, host="failover")
    conversation.tell([line_of(200000 + number) for number in range(4000)])
    conversation.wait(1000)
    fleet.kill_cluster()
    conversation.tell([line_of(204000 + number) for number in range(1000)])
    time.sleep(0.5)
    acknowledged = conversation.answered - 1
    query("SELECT pg_promote()", host=standby)
    there = rows("host = 'failover'", host=standby)
    expect(f"of {acknowledged} lines that were acknowledged none is lost with the primary", there >= acknowledged, True)
    conversation.wait()
    expect("the rest comes to the standby that was promoted", query(
        "SELECT count(*), count(DISTINCT key) FROM zelk_incident WHERE host = 'failover'", host=standby), "5000|5000")
    kill(gatherer)
    fleet.start_cluster()
    query("ALTER SYSTEM SET synchronous_standby_names = ''")
    query("SELECT pg_reload_conf()")


# ---- Tiers --------------------------------------------------------------------------------------------------------------

def by_tls():
    """Nodes with certificates reach a relay, which hands their lines on to another gatherer."""
    fleet.make_authority("authority")
    fleet.make_authority("stranger")
    for name, authority, host in (("middle", "authority", "middle.example"), ("site", "authority", "site.example"),
                                  ("liar", "authority", "liar.example"), ("honest", "authority", "honest.example"),
                                  ("foreign", "stranger", "liar.example")):
        make_certificate(name, authority, host)
    fleet.revoke("authority")
    run("sh", "-c", "echo 127.0.0.1 localhost middle.example >/tmp/zelk-hosts && mount --bind /tmp/zelk-hosts /etc/hosts")
    middle = start_gatherer("--listen=127.0.0.1:2610", f"--database={fleet.conninfo()}", "--trust=site.example",
                            f"--tls-crl={fleet.folder}/authority.crl", *fleet.tls_options("middle", "authority"), port=2610, name="middle")
    start_gatherer("--listen=127.0.0.1:2611", "--relay=middle.example:2610", *fleet.tls_options("site", "authority"),
                   port=2611, name="site")

    def context(name, authority="authority"):
        made = ssl.create_default_context(cafile=f"{fleet.folder}/{authority}.pem")
        made.check_hostname = False
        if name:
            made.load_cert_chain(f"{fleet.folder}/{name}.pem", f"{fleet.folder}/{name}.key")
        return made

    # The relay knows the node by a longer name than the node says.
    conversation = Conversation(2611, tls=context("liar"))
    conversation.socket.sendall(conversation.frame("syslog", b"<1>1 - - - - - - " + b"x" * (65536 - 17)))
    conversation.wait()
    conversation.close()
    expect("a line that has no room in a relay's frame is cut, and kept where it is rejected", query(
        "SELECT host, length(line) FROM zelk_rejected WHERE host = 'liar.example'"), "liar.example|65503")

    for port, numbers in ((2610, range(70000, 70010)), (2611, range(70010, 72010))):
        conversation = Conversation(port, host="somebody.else", tls=context("liar"))
        conversation.tell([line_of(number) for number in numbers])
        conversation.wait()
        conversation.close()
    expect("a node's name is its certificate's, through relays too", query(
        "SELECT host || ' ' || count(*) FROM zelk_incident WHERE host LIKE '%.example' OR host LIKE 'some%' GROUP BY host"),
        "liar.example 2010")

    def is_refused(tls):
        try:
            Conversation(2610, tls=tls)
            return False
        except OSError:
            return True

    expect("nobody else is let in", [is_refused(tls) for tls in (None, context(None), context("foreign"))], [True] * 3)

    connections = [Conversation(2610, tls=context(name)) for name in ("liar", "honest")]
    fleet.revoke("authority", "liar")
    middle.send_signal(signal.SIGHUP)

    def goes_on(connection):
        try:
            connection.tell([line_of(70000)])
            connection.wait()
            return True
        except OSError:
            return False

    time.sleep(0.3)
    expect("a certificate that is revoked ends its connection, and no other", [goes_on(each) for each in connections], [False, True])
    expect("and lets nobody in", [is_refused(context(name)) for name in ("liar", "honest")], [True, False])

    for file in ("pem", "key"):
        os.replace(f"{fleet.folder}/foreign.{file}", f"{fleet.folder}/middle.{file}")
    os.replace(fleet.folder + "/stranger.pem", fleet.folder + "/authority.pem")
    middle.send_signal(signal.SIGHUP)
    time.sleep(0.3)
    expect("SIGHUP reads certificates anew", is_refused(context("honest")), True)
    expect("and ends connections by those that do not hold any more", goes_on(connections[1]), False)
    expect("and nothing has ended", middle.poll(), None)


def killed_behind_a_relay():
    """A relay sends again what the gatherer behind it had not answered for."""
    start_gatherer("--listen=127.0.0.1:2651", "--relay=127.0.0.1:2650", port=2651, name="relay")
    conversation = Conversation(2651, host="relayed")
    for first in range(400000, 405000, 1000):
        gatherer = start_gatherer("--listen=127.0.0.1:2650", f"--database={fleet.conninfo()}", port=2650, name="behind")
        conversation.tell([line_of(first + number) for number in range(1000)])
        wait_until(lambda: rows("host = 'relayed'") > first - 400000, pause=0.001)
        kill(gatherer)
    start_gatherer("--listen=127.0.0.1:2650", f"--database={fleet.conninfo()}", port=2650, name="behind")
    conversation.wait()
    expect("what waits behind a relay outlives gatherers that are killed", rows("host = 'relayed'"), 5000)


def several_databases():
    """Rows in two databases, and then in three: any of them can be asked, and takes any line."""
    for name in ("part1", "part2", "part3"):
        fleet.make_database(name)
    fleet.spread("part1", "part2")
    gatherer = start_gatherer("--listen=127.0.0.1:2620", *(f"--database={fleet.conninfo(name)}" for name in ("part1", "part2")),
                              port=2620, name="parts")
    put([line_of(number, cause=id_of(number - 1) if number else None) for number in range(400)], port=2620)
    here = [int(query("SELECT count(*) FROM zelk_incident_here", name)) for name in ("part1", "part2")]
    expect(f"rows are spread, {here}", (sum(here), min(here) > 100), (400, True))
    expect("each database answers for all", [query(f"SELECT count(*), max(depth) FROM zelk_chain('{id_of(300)}')", name,
                                                   user="zelk_reader") for name in ("part1", "part2")], ["400|399"] * 2)
    kill(gatherer)
    # A row that comes by way of another database at the same moment is told to try again, as zelk-gather does.
    copies = [subprocess.Popen(["psql", "-Xq", "-U", "zelk_writer", name], stdin=subprocess.PIPE, stdout=fleet.log,
                               stderr=fleet.log, text=True) for name in ("part1", "part2")]
    for copy, second in zip(copies, ("30", "31")):
        for number in (1000, 1001, 1002, 1003):
            copy.stdin.write(f"SELECT zelk_put('twin', '', $${line_of(number).replace('09:30Z', '09:' + second + 'Z')}$$);" * 2)
        copy.stdin.close()
    expect("a key that comes to both at once, with two times, is one row", (
        [copy.wait() for copy in copies], rows("host = 'twin'", "part1"), rows("host = 'twin'", "part2")), ([0, 0], 4, 4))
    fleet.spread("part1", "part2", "part3")
    here = [int(query("SELECT count(*) FROM zelk_incident_here", name)) for name in ("part1", "part2", "part3")]
    expect(f"rows move when a database is added, {here}", (sum(here), min(here) > 80, rows(database="part3")), (404, True, 404))
    expect("first causes are found across all", query(
        "SELECT effects FROM zelk_first_causes('2026-01-01') LIMIT 1", "part2"), "399")


def distributed():
    """What Citus is given answers as what it is made from, as far as can be seen without Citus."""
    with open(fleet.FLEET + "/schema-citus.sql") as file:
        script = file.read().replace("CREATE EXTENSION IF NOT EXISTS citus;", """
            CREATE FUNCTION create_distributed_table(name regclass, by text) RETURNS void LANGUAGE sql AS 'SELECT';""")
    tree = [line_of(number, cause=id_of((number - 1) // 3)) for number in range(1, 40)] + [
        line_of(50, cause=id_of(51)), line_of(51, cause=id_of(50)), line_of(3).replace("disk07", "disk08"), line_of(3), "no line",
        '{"stack":"disks","gap":true}']
    answers = []
    for name in ("whole", "citus"):
        fleet.make_database(name)
        if name == "citus":
            query(script, name)
        for lines in (tree, tree[5:9]):
            query("SELECT zelk_put_many(array_fill('node1'::text, ARRAY[%d]), array_agg(number::text), array_agg(line)) FROM unnest(ARRAY[%s]) "
                  "WITH ORDINALITY each (line, number)" % (len(lines), ",".join(f"$${line}$$" for line in lines)), name, user="zelk_writer")
        answers.append([query(question, name, user="zelk_reader") for question in (
            "SELECT key, cause FROM zelk_incident ORDER BY key", "SELECT host, stack, gaps FROM zelk_gaps", "SELECT place, reason FROM zelk_rejected",
            f"SELECT depth, key FROM zelk_chain('{id_of(39)}')", f"SELECT depth, key FROM zelk_effects('{id_of(50)}')",
            "SELECT effects, key, at FROM zelk_first_causes('2026-01-01') ORDER BY key",
            f"SELECT effects, key FROM zelk_first_causes(to_timestamp({fleet.SECOND}) + interval '20 milliseconds') ORDER BY key",
            "SELECT count(*), min(description) FROM zelk_plain")])
    expect("rows as Citus distributes them answer as those of one database", answers[1], answers[0])
    expect("and are all that was told", (answers[0][0].count("\n") + 1, "another incident" in answers[0][2]), (41, True))


def pages():
    """What zelk-page writes about all of them: each text is one, each chain has its page, and what is not needed goes."""
    fleet.make_database("paged")
    cause = line_of(1, int(time.time()) - 60).replace("8589934712, 0.5.", "<b>&amp;\\u001B</b>")
    effects = [line_of(number, int(time.time()) - 50, id_of(1, int(time.time()) - 60)) for number in (2, 3)]
    for host, line in [("here", cause), ("there", effects[0]), ("there", effects[1]), ("<i>", '{"stack":"<u>","gap":true}'),
                       ("here", "<s>no line")]:
        query(f"SELECT zelk_put('{host}', '1', $Q${line}$Q$)", "paged")
    folder = fleet.folder + "/pages"
    os.mkdir(folder)
    for name in ("chain-old.html", "mine.html"):
        open(f"{folder}/{name}", "w").close()
    answer = subprocess.run([fleet.FLEET + "/zelk-page", folder], capture_output=True, text=True,
                            env=fleet.environment | {"PGUSER": "zelk_reader", "PGDATABASE": "paged"})
    front = open(folder + "/index.html").read()
    expect("a page is written", (answer.returncode, answer.stderr), (0, ""))
    row = re.search('<tr><td class="number">2</td>.*', front)[0]
    expect("a first cause has its effects, and a page of its chain", (
        re.sub("<[^>]*>", "|", row.replace("</td>", "")).split("|")[6:9:2], len(os.listdir(folder))),
        (["192.0.2.2", "stn.node"], 3))
    chain = re.search('href="(chain-[^"]*)"', row)[1]
    expect("the chain is there", [id in open(f"{folder}/{chain}").read() for id in re.findall('"id":"([^"]*)"', "".join(effects))], [True, True])
    expect("no recorded text is markup", [tag for tag in ("<b>", "<i>", "<u>", "<s>") if tag in front], [])
    expect("nor a control", "&lt;b&gt;&amp;amp;\ufffd&lt;/b&gt;" in front, True)


# ---- What sends ---------------------------------------------------------------------------------------------------------

def make_spool(name, **files):
    folder = f"{fleet.folder}/{name}"
    os.mkdir(folder)
    for number, content in files.items():
        with open(f"{folder}/{number.strip('_')}.json", "w") as file:
            file.write(content)
    return folder


def lines_taken(gatherer):
    """How many lines a gatherer has taken since its start."""
    gatherer.send_signal(signal.SIGUSR1)
    time.sleep(0.2)
    return int(re.findall(r"status: (\d+) lines", open(gatherer.log).read())[-1])


def spool_is_sent():
    a, b, c, d, e = (line_of(300000 + number) for number in range(5))
    spool = make_spool("spool1", _99=c + "\n", _100=f"#100\n{a}\n{d[:300]}#\n" + "x" * 70000 + f"\n{b}\n", _1000=d[:400], _begun=e)
    gatherer = start_gatherer("--listen=127.0.0.1:2640", f"--database={fleet.conninfo()}", port=2640, name="sent")

    def start_forward():
        return fleet.start("zelk-forward", "--spool=" + spool, f"--state={fleet.folder}/taken", "127.0.0.1:2640")

    def keys():
        return query(f"SELECT string_agg(key, ' ' ORDER BY received) FROM zelk_incident WHERE host = '{socket.gethostname()}'")

    forward = start_forward()
    first = [id_of(300000 + number) for number in (2, 0, 1)]
    expect("lines are sent in the order of files, those cut short are not, and those too long are cut", (wait_until(
        lambda: sorted(keys().split()) == sorted(first)), query(
            f"SELECT length(line) FROM zelk_rejected WHERE host = '{socket.gethostname()}'")), (True, "64512"))
    expect("files are deleted when the middle has them, but for the newest", wait_until(
        lambda: sorted(os.listdir(spool)) == ["1000.json", "begun.json"]), True)
    with open(spool + "/1000.json", "a") as file:
        file.write(d[400:] + "\n")
    expect("the rest of a line is waited for", wait_until(lambda: id_of(300003) in keys()), True)
    forward.terminate()
    expect("what sends ends with 0", forward.wait(), 0)
    lines_taken(gatherer)
    expect("what has been taken waits no more", re.findall(r"(\d+) lines \((\d+) KiB\) wait", open(gatherer.log).read())[-1], ("0", "0"))
    with open(spool + "/1000.json", "a") as file:
        file.write(e + "\n")
    forward = start_forward()
    wait_until(lambda: id_of(300004) in keys())
    expect("and goes on where it was", lines_taken(gatherer), 6)
    kill(forward)
    os.remove(fleet.folder + "/taken")
    forward = start_forward()
    expect("or sends once more what is there", wait_until(lambda: lines_taken(gatherer) == 8), True)
    expect("and the database knows it", len(keys().split()), 5)
    kill(forward)
    kill(gatherer)


def spool_goes_on():
    """A new file is the newest, also where the clock was set back."""
    spool, cursor = fleet.folder + "/clock", fleet.folder + "/clock-cursor"
    os.mkdir(spool)
    newest = time.time_ns() + 3600 * 10**9
    with open(f"{spool}/{newest}.json", "w") as file:
        file.write("#" * 131072 + "\n")
    running = fleet.start(fleet.FLEET + "/zelk-spool", ZELK_SPOOL=spool, ZELK_CURSOR=cursor, ZELK_SPOOL_SIZE="131072")
    expect("a file that is begun after the clock was set back is the newest all the same", wait_until(
        lambda: sorted(os.listdir(spool)) == [f"{newest}.json", f"{newest + 1}.json"]), True)
    kill(running)


def hostile_middles():
    """Whatever the other side answers, what sends lives, tries again, and takes nothing for sent."""
    line = line_of(310000)
    for number, reply in enumerate([b"\0" * 100, b"2 rsp 1000000000 x", b"3 rsp 6 200 OK\n", b"1 rsp 6 200 OK\n", b"2 rsp 9 500 error\n",
                                    b"0 serverclose 0\n", b"9" * 100000, b""]):
        spool = make_spool(f"hostile{number}", _1=f"{line}\n")
        state = f"{fleet.folder}/hostile{number}.taken"
        with socket.create_server(("127.0.0.1", 0)) as middle:
            middle.settimeout(10)
            forward = fleet.start("zelk-forward", "--spool=" + spool, "--state=" + state, "127.0.0.1:%d" % middle.getsockname()[1])
            for answer in (reply, b"2 rsp 6 200 OK\n"):
                node, _ = middle.accept()
                with node:
                    node.settimeout(10)
                    node.recv(1000)
                    node.sendall(b"1 rsp 6 200 OK\n")
                    came = node.recv(10000)
                    node.sendall(answer)
                    if answer != reply:
                        is_sent = wait_until(lambda: os.path.exists(state) and open(state).read() == f"1.json {len(line) + 1}\n")
            if not (is_sent and came.endswith(b" - - " + line.encode() + b"\n") and forward.poll() is None):
                expect(f"after an answer that is none all goes on: {reply[:30]!r}", (is_sent, came, forward.poll()), "all goes on")
            kill(forward)


# ---- A fleet ------------------------------------------------------------------------------------------------------------

def record_many(node, stack, count):
    """Starts to record incidents that fill a stack soon."""
    return node.start_recording(stack, count, "-d", "slot " + "0" * 80)


def three_nodes(gatherer):
    nodes = [Node(number) for number in (1, 2, 3)]
    for node in nodes:
        node.start_rsyslog() if node == nodes[2] else node.start_forward()
        node.start_spool()
    # What no frame has room for, in a spool of somebody's own making.
    for node in nodes[1:]:
        node.run("sh", "-c", """cd /var/lib/zelk/spool; { printf '#%-1022s\\n' 1; head -c 200000 /dev/zero | tr '\\0' x; echo; } >made
            mv made 1.json""")
    first = nodes[0].record("chain", "Fan 3 of enclosure 1 stands still.")
    second = nodes[1].record("chain", "-c", first, "Disk disk\03307 is too warm.")
    third = nodes[2].record("chain", "-c", second, "Backup of archive stopped.")

    # A line that zkexport had begun when it was killed, and an incident that it did not see.
    kill(nodes[0].spool)
    nodes[0].run("sh", "-c", 'zkexport chain | head -c 300 >>"$(echo /var/lib/zelk/spool/*.json)"')
    nodes[0].record("chain", "-c", second, "Alarm 100417")
    time.sleep(0.5)  # what is there is read
    nodes[0].start_spool()

    recorders = [(node, record_many(node, "busy", 1500)) for node in nodes]
    wait_until(lambda: rows() > 300)
    kill(nodes[1].forward)
    time.sleep(0.5)
    nodes[1].start_forward()
    wait_until(lambda: rows() > 1200)
    kill(gatherer)
    time.sleep(0.5)
    gatherer = start_gatherer("--listen=*:2514", f"--database={fleet.conninfo()}")
    wait_until(lambda: rows() > 2400)
    fleet.kill_cluster()
    time.sleep(0.5)
    fleet.start_cluster()
    recorded = [(node, *line.split()) for node, recorder in recorders for line in recorder.communicate()[0].splitlines()]

    # More than a stack holds while nobody reads it.
    kill(nodes[2].spool)
    before = query("SELECT stack, gaps FROM zelk_gaps WHERE host = 'node3' AND stack LIKE 'busy%'").splitlines()
    record_many(nodes[2], "busy", 400).communicate()
    nodes[2].start_spool()

    there = set()

    def all_are_there():
        there.update(query("SELECT host || ' ' || key FROM zelk_incident WHERE host LIKE 'node_'").splitlines())
        return all(f"{node.name} {key}" in there for node, _, key in recorded)

    # Nodes wait up to ten seconds before it tries again. What a stack has lost comes to a gap.
    wait_until(all_are_there, limit=25, pause=0.5)
    missing = {(node.name, stack) for node, stack, key in recorded if f"{node.name} {key}" not in there}
    gaps = {tuple(row.split("|")) for row in query("SELECT host, stack FROM zelk_gaps").splitlines()}
    expect(f"of {len(recorded)} incidents none is lost but what a gap tells of", missing - gaps, set())
    expect("nearly all of them are there", len([1 for node, _, key in recorded if f"{node.name} {key}" in there])
           > len(recorded) * 0.9, True)
    def has_gaps():
        return len(set(query("SELECT stack, gaps FROM zelk_gaps WHERE host = 'node3' AND stack LIKE 'busy%'").splitlines())
                   - set(before)) == 4

    expect("stacks that were not read for a while have gaps, each one more", wait_until(has_gaps, limit=25), True)
    expect("no incident is there twice", query("SELECT count(*) - count(DISTINCT key) FROM zelk_incident"), "0")
    expect("a torn line is passed over", reason_of("node1"), "")
    expect("a line that is too long for a frame is rejected, and nothing waits behind it", ["not a line of zkexport" in reason_of(host) for host in ("node2", "node3")], [True, True])

    expect("causes lead over all nodes", query(
        f"SELECT string_agg(host, ' ' ORDER BY depth) FROM zelk_causes('{third}')"), "node3 node2 node1")
    reader = fleet.environment | {"PGUSER": "zelk_reader"}
    chain = subprocess.run([fleet.FLEET + "/chain", third], env=reader, capture_output=True, text=True).stdout
    expect("the chain is whole, and its texts do not drive the terminal", (len(chain.splitlines()), "disk?07" in chain),
           (4, True))
    page = subprocess.run([fleet.FLEET + "/chain", "--html", third], env=reader, capture_output=True, text=True).stdout
    expect("it can be looked at as a page", f"<code>{second}</code>" in page, True)

    # Files that are begun now are sent at once, and those before them go.
    record_many(nodes[0], "later", 500).communicate()
    expect("the spool keeps what it needs", wait_until(lambda: len(nodes[0].run(
        "sh", "-c", "ls /var/lib/zelk/spool/*.json").split()) <= 4), True)

    # What has been sent may not have arrived: the spool keeps it until then.
    gatherer.send_signal(signal.SIGSTOP)
    keys = [line.split()[1] for line in record_many(nodes[0], "later", 300).communicate()[0].splitlines()]
    time.sleep(1)
    spool = nodes[0].run("sh", "-c", "cat /var/lib/zelk/spool/*.json")
    there.update(query("SELECT host || ' ' || key FROM zelk_incident WHERE host = 'node1'").splitlines())
    kill(nodes[1].spool)
    nodes[1].start_spool(ZELK_SPOOL_FILES="2")
    record_many(nodes[1], "later", 600).communicate()
    expect("a spool has a limit", len(nodes[1].run("ls", "/var/lib/zelk/spool").split()), 2)
    expect("no line leaves the spool before it has been taken",
           [key for key in keys if key not in spool and "node1 " + key not in there], [])
    kill(gatherer)
    return start_gatherer("--listen=*:2514", f"--database={fleet.conninfo()}")


def main():
    # The machine does not crash here, so nothing has to be synchronised with the disk.
    fleet.make_cluster("fsync = off")
    fleet.make_database("zelk")
    gatherer = start_gatherer("--listen=*:2514", f"--database={fleet.conninfo()}")
    silent = [socket.create_connection(("127.0.0.1", 2514)) for _ in range(600)]
    begun = time.monotonic()
    off = vanish(gatherer)
    hostile_frames(gatherer)  # before what is said of the silent ones fills the log
    lines_that_are_none()
    one_judge()
    what_recorders_write()
    one_row_a_key()
    nameless()
    gaps()
    questions()
    checks()
    pages()
    who_may()
    neighbours()
    half_open(begun, silent)
    vanished(off, gatherer)
    by_tls()
    killed_behind_a_relay()
    several_databases()
    distributed()
    killed_gatherers()
    away()
    failover()
    spool_is_sent()
    spool_goes_on()
    hostile_middles()
    gatherer = three_nodes(gatherer)
    months()
    gatherer.terminate()
    expect("and in the end it ends", gatherer.wait(), 0)
    fleet.finish()


fleet.enter(os.path.abspath(__file__))
main()
