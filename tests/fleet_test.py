# SPDX-License-Identifier: MIT
"""Tries what is in fleet/ as a whole; script/test-fleet runs it. Each story below is one that must not end otherwise, whatever is
killed meanwhile and whoever sends what."""
import base64
import concurrent.futures
import datetime
import errno
import glob
import html
import itertools
import json
import os
import random
import re
import select
import shlex
import signal
import socket
import ssl
import struct
import subprocess
import sys
import threading
import time

import fleet
import fleet_model as model_of
import line_model
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
        "a number that nobody reads": line.replace("8589934712", "1e+999"),
        "31st of June": line.replace('"time":"2026-11-25', '"time":"2026-06-31'),
        "a time of another century": line.replace('"time":"2026', '"time":"1826'),
        "an offset below zero": line.replace('"offset":24', '"offset":-1'),
        "a node with a prefix": line.replace("192.0.2.2", "192.0.2.2/24"),
        "second 60": line.replace(':30Z"', ':60Z"'),
        "another time than its Error ID's": line.replace('.000997Z', '.000998Z'),
        "a long Error ID": line.replace(id_of(1), id_of(1) + "."),
        "one is missing": line.replace('"cause":null,', ""),
        "one is null": line.replace('"name":"diskmon"', '"name":null'),
        "an argument of another type": line.replace('"type":"int"', '"type":"pointer"'),
        "a line that looks like bytes": "\\x" + line.encode().hex(),
        "a node that is none": line.replace('"node":"192.0.2.2"', '"node":"192.0.2"'),
        "bytes of another text": line.replace('"details"', '"description_base64":"/w==","details"'),
        "an error of another name": '{"stack":"disks","error":{"code":-26,"name":"ZELK_LOCK","reason":"x"}}',
        "a C1 control as it stands": line.replace("slot 7", "slot \u009b"),
    }.items():
        put([bad], host="bad", place=place.replace(" ", "_").replace(",", "").replace("'", ""))
    fleet.transcript("fleet_rejected")
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


def any_argument(chance):
    """An argument of any type, and at any border of what it may be."""
    digits = "%x" % chance.choice([0, 7, 255, chance.randrange(1 << 64)])
    number = str(chance.choice([0, -0, 1 << 31, (1 << 31) - 1, -(1 << 31), -(1 << 31) - 1, 1 << 63, (1 << 63) - 1, -(1 << 63), chance.randrange(-9, 9)]))
    kind, value = chance.choice([("int", number), ("long", number), ("long_long", number), ("pointer", f'"0x{digits}"'), ("pointer", f'"{digits}"'),
                                 ("reserved", f'"{digits:0>16}"'), ("unknown", f'"{digits:0>16}"'), ("unknown", f'"{digits}"'), ("double", any_double(chance)),
                                 ("double", '"-nan"'), ("double", '"-inf"'), ("double", '"inf"'), ("string", '"s"'), ("string", "5"), ("none", '"s"')])
    return f'"type":"{kind}","value":{value}'


def any_bytes(chance):
    """A text of bytes at the borders of what UTF-8 may have, and these beside it."""
    data = bytes(chance.choice(b"A\x80\x8f\x90\x9f\xa0\xbf\xc1\xc2\xdf\xe0\xe1\xec\xed\xee\xef\xf0\xf1\xf3\xf4\xf5\xff") for _ in range(chance.randrange(1, 9)))
    text = re.sub("[\x80-\x9f]", lambda found: f"\\u{ord(found[0]):04x}", data.decode("utf-8", "replace"))
    return f'"{text}","version_base64":"{base64.b64encode(data).decode()}"'


def with_other_id(line, known, chance):
    """An Error ID with another time, and bytes that are none of a text in what nothing is decoded of."""
    seconds = chance.choice(["......", "zzzzz.", "zzzzz/", ".....0", "zzzzzz", known[7:13]])
    microseconds = chance.choice(["....", "zzzz", "Fa11", "Da1/", "zo11", known[13:17]])
    made = known[0] + chance.choice([known[1:7], known[1:5] + "\ufffd\ufffd"]) + seconds + microseconds + known[17:]
    count = sum(ALPHABET.index(digit) << 6 * place for place, digit in enumerate(seconds))
    told = (datetime.datetime(1970, 1, 1) + datetime.timedelta(seconds=count)).strftime("%Y-%m-%dT%H:%M:%S")
    told += ".%06dZ" % sum(ALPHABET.index(digit) << 6 * place for place, digit in enumerate(microseconds))
    raw = base64.b64encode(made.encode().replace("\ufffd".encode(), b"\xff")).decode()
    bytes_beside = f',"id_base64":"{raw}"' if "\ufffd" in made else ""
    line = line.replace(f'"{known}"', f'"{made}"{bytes_beside}')
    if chance.randrange(2):
        line = re.sub('"time":"[^"]*"', f'"time":"{told[:19]}Z"', line)
    return re.sub(',"id_time":"[^"]*"', chance.choice([f',"id_time":"{told}"', ""]), line)


def judged(count, chance):
    """Lines that are nearly such of zkexport, each from another number."""
    pieces = ['"', "\\", "\\u00e9", "\\u000b", "\\u000B", "\\u007f", "\\u009F", "\\b", "{", "}", "[", "]", ",", ":", "null", "true", "0", "-",
              "1", "1e5", ".5", '"":', "\x7f", "\u0080", "\u00e9", '"gap":true', ',"details":""', "9" * 25, "T", "Z", "\ufffd", "=", "\t"]
    names = [f"ZELK_{name}" for name in ("FAILURE", "LOCK", "FILE_CORRUPT", "UNSUPPORTED", "INV_PARAM1", "FILE_EXIST")]
    for number in range(count):
        line = chance.choice([
            line_of(1000 + number),
            line_of(1000 + number).replace("slot 7", "\\u001B[31m\\u000E\\u001F\\u007f\\u009f\\b\\f \u00e9"),
            line_of(1000 + number).replace('"1.7"', any_bytes(chance)),
            line_of(1000 + number).replace('"disk07"}', '"a\ufffd","value_base64":"Yf8="}'),
            line_of(1000 + number).replace('","details"', '","cut":true,"details"').replace('"cut"', chance.choice(['"cut"', 'cut'])),
            line_of(1000 + number).replace('"value":0.5', '"value":' + any_double(chance)),
            line_of(1000 + number).replace('"type":"int","value":3', any_argument(chance)),
            with_other_id(line_of(1000 + number), id_of(1000 + number), chance),
            line_of(1000 + number).replace('"cause":null', chance.choice([f'"cause":"{id_of(number)}"', '"cause":"\u00e9"', '"cause":"\ufffd","cause_base64":"/w=="'])),
            line_of(1000 + number).replace("192.0.2.2", chance.choice(["2001:db8::7", "::1", "::ffff:10.1.2.3", "10.1.2.03"])),
            f'{{"stack":"s{number}","gap":true}}',
            f'{{"stack":"s{number}","error":{{"code":{-chance.choice([1, 2, 26, 27, 28, 99, 12])},"name":"{chance.choice(names)}",'
            f'"offset":{chance.choice(["0", "24", "-1"])},"reason":"\u00e9"}}}}'])
        for _ in range(chance.choice([0, 0, 1, 2])):
            at = chance.randrange(len(line))
            line = line[:at] + chance.choice(pieces) + line[at + chance.randrange(4):]
        yield line


def one_judge():
    """A line that zelk_put takes and zkexport would not write, or the other way round, would poison the chain that it hangs on."""
    seed = int.from_bytes(os.urandom(4), "big")
    lines = [*line_model.changed_lines(lambda number: line_of(100000 + number)), *judged(3000, random.Random(seed))]
    written = subprocess.run(["zkexport", "--input"], input="\n".join(lines) + "\n", text=True, capture_output=True).stdout.splitlines()

    def array(lines):
        return "ARRAY[" + ",".join(f"$Q${line}$Q$" for line in lines) + "]"

    taken = query(f"SELECT encode(convert_to(line, 'UTF8'), 'hex') FROM unnest({array(lines + written)}) line, zelk_read('judge', line) WHERE kind IS NOT NULL")
    taken = [bytes.fromhex(line).decode() for line in taken.splitlines()]  # psql does not print all characters
    expect(f"of {len(lines)} lines those are taken that zkexport writes, {len(set(written))} (seed {seed})", set(taken) ^ set(written), set())
    lines = lines[-3000:]
    put(lines, host="judge")
    came = f"SELECT key, cause, zelk_time(key), zelk_bucket(key), line FROM unnest({array(lines)}) line, zelk_read('judge', line) WHERE kind = 'incident'"
    there = "SELECT key, cause, time, bucket, incident::text FROM zelk_incident WHERE host = 'judge'"
    expect("zelk-gather says of a line what the database would, or nothing", query(f"({came} EXCEPT {there}) UNION ALL ({there} EXCEPT {came})"), "")
    expect("all lines come to a table", query("SELECT (SELECT count(*) FROM zelk_incident WHERE host = 'judge') + "
           "(SELECT count(*) FROM zelk_rejected WHERE host = 'judge') + (SELECT count(*) FROM zelk_notice WHERE host = 'judge')"), "3000")


def one_row_a_key():
    line = line_of(7000)
    put([line, line, line.replace("7:09:30Z", "7:09:32Z")], host="once")
    put([line.replace("7:09:30Z", "7:09:31Z")], host="once", place="later")
    copy = line.replace('"stack":"disks","offset":24', '"stack":"copy\ufffd","stack_base64":"Y29wef8=","offset":600')
    put([re.sub('"description":"[^"]*"', '"description":"Disk\ufffd","description_base64":"RGlza/8=","cut":true', copy)], host="once", place="copy")
    expect("an incident that comes again is one row, wherever it lies", (rows("host = 'once'"), reason_of("once")),
           (1, "; ".join(["another incident has this Error ID"] * 2)))

    one, other = line_of(7001), line_of(7001).replace("7:09:30Z", "7:09:31Z")
    query(f"SELECT zelk_put_many('{{both,both}}', '{{1,2}}', ARRAY[$${one}$$, $${other}$$])")
    expect("of two with one Error ID that come together the first is the row", query(
        "SELECT incident::text FROM zelk_incident WHERE host = 'both'") + query("SELECT convert_from(line, 'UTF8') FROM zelk_rejected WHERE host = 'both'"),
        one + other)

    lines = [line_of(20000 + number) for number in range(2000)]
    copies = [subprocess.Popen(["psql", "-Xq", "-v", "ON_ERROR_STOP=1", "-U", "zelk_writer", "zelk"], stdin=subprocess.PIPE,
                               stdout=fleet.log, stderr=fleet.log, text=True) for _ in range(4)]
    for copy in copies:
        copy.stdin.write("SELECT zelk_put_many('{}', '{}', ARRAY[%s]);" % ",".join(f"$${line}$$" for line in random.sample(lines, 2000)))
        copy.stdin.close()
    expect("sessions with the same lines do not wait in a circle", [copy.wait() for copy in copies], [0] * 4)
    expect("and each line is there once", rows("host = ''"), 2000)


def nameless():
    """Incidents without an Error ID, as programs of old record them."""
    line = line_of(3).replace(f'"{id_of(3)}"', "null").replace('"id_time":"2026-11-25T07:09:30.002991Z","node":"192.0.2.2",', "")
    put([line, line, line.replace('"offset":24', '"offset":300'), line.replace(":30Z", ":31Z"), line.replace("2026", "1999"), line.replace("2026", "1969")], host="old")
    put([line], host="older")
    expect("they are told apart by who says what, and have times whatever a clock says", query(
        "SELECT host, time, count(*) FROM zelk_incident WHERE host IN ('old', 'older') AND key LIKE '#%' GROUP BY host, time ORDER BY host, time").splitlines(), [
            "old|1970-01-01 00:00:00+00|1", "old|1999-11-25 07:09:30+00|1", "old|2026-11-25 07:09:30+00|2", "old|2026-11-25 07:09:31+00|1",
            "older|2026-11-25 07:09:30+00|1"])


def gaps():
    gap, error = '{"stack":"busy","gap":true}', '{"stack":"busy","error":{"code":-28,"name":"ZELK_LOCK","reason":"it cannot be locked"}}'
    for host, lines in (("gaps", [gap, gap, error, "none", "none"]), ("gaps", [gap, gap]), ("more", [gap])):
        put(lines, host=host)
    expect("a second gap of a stack is kept, the same one is not", query(
        "SELECT host, place, kind, stack, notice FROM zelk_notice WHERE host IN ('gaps', 'more') ORDER BY host, place").splitlines(), [
            f"gaps|1.json:0|gap|busy|{gap}", f"gaps|1.json:1|gap|busy|{gap}", f"gaps|1.json:2|error|busy|{error}", f"more|1.json:0|gap|busy|{gap}"])
    expect("so it is of what is rejected", reason_of("gaps"), "; ".join(["not a line of zkexport"] * 2))


def months():
    """A month's rows find their partition, and nobody waits for it."""
    first = 1_767_225_600  # 2026-01-01 00:00:00 UTC
    put([line_of(0, first), line_of(2, first - 1), line_of(3, first + 86400 * 31 - 1)], host="months")
    query("SET timezone = 'Asia/Kolkata'; SELECT zelk_make_partition('2026-01-15')")
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
    query(f"SELECT zelk_put('now', '', $${line_of(5, int(time.time()))}$$)", user="zelk_writer")
    expect("its rows move in when the next ones come", query("SELECT DISTINCT tableoid::regclass FROM zelk_incident WHERE host = 'now'"), this)
    until_its_end = query("SELECT now() - '2026-01-31 23:00:00Z'")
    expect("a month stays as long as a part of it is young enough", query(f"SET timezone = 'Asia/Kolkata'; SELECT zelk_drop_before('{until_its_end}')"), "0")
    query("DELETE FROM zelk_incident_other WHERE host <> 'months'")
    for age in (199, 201):
        query(f"INSERT INTO zelk_notice VALUES (now() - interval '{age} days', 'aged', '{age}', 'gap', '', '{{}}');"
              f"INSERT INTO zelk_rejected VALUES (now() - interval '{age} days', 'aged', '{age}', '', '')")
        put([line_of(10 + age, int(time.time()) - age * 86400)], host="aged")
    asking = subprocess.Popen(["psql", "-XqAt", "zelk"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    asking.stdin.write("BEGIN; SELECT count(*) FROM zelk_incident_2026_01;\n")
    asking.stdin.flush()
    asking.stdout.readline()
    expect("a month that somebody asks for stays until the next time", (query("SELECT zelk_drop_before(interval '200 days')"),
           "NOTICE:  zelk_incident_2026_01 is in use\n" in open(fleet.log.name).read()), ("0", True))
    asking.stdin.close()
    asking.wait()
    expect("old months go as a whole", query("SELECT zelk_drop_before(interval '200 days')"), "1")
    expect("and all else that is old", (rows("host = 'months'"), query(
        "SELECT string_agg(place, ' ') FROM (SELECT host, place FROM zelk_notice UNION ALL SELECT host, place FROM zelk_rejected "
        "UNION ALL SELECT host, (now()::date - time::date)::text FROM zelk_incident) each WHERE host = 'aged'")), (0, "199 199 199"))


def refused_by_the_database():
    """What the database itself refuses of a line is found, and kept as bytes; the others are rows."""
    fleet.make_database("refusing")
    bad = [line_of(number) for number in (17, 40)]
    query(f"""CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN
        IF NEW.key IN ('{id_of(17)}', '{id_of(40)}') THEN
            RAISE EXCEPTION 'not that one' USING ERRCODE = CASE NEW.key WHEN '{id_of(17)}' THEN '22000' ELSE '54000' END; END IF; RETURN NEW; END $$;
        CREATE TRIGGER refuse BEFORE INSERT ON zelk_incident FOR EACH ROW EXECUTE FUNCTION refuse()""", "refusing")
    gatherer = start_gatherer("--listen=127.0.0.1:2621", f"--database={fleet.conninfo('refusing')}", port=2621, name="refusing")
    put([line_of(number) for number in range(60)], 2621)
    expect("a line that the database refuses holds up no other", (rows(database="refusing"), query(
        "SELECT convert_from(line, 'UTF8') FROM zelk_rejected ORDER BY place", "refusing").splitlines()), (58, bad))
    query("ALTER FUNCTION zelk_read(text, text) RENAME TO zelk_unread", "refusing")
    put([line_of(60)], 2621)
    expect("usual lines are not read again there", rows(database="refusing"), 59)
    query("""DROP FUNCTION zelk_put_many(text[], text[], text[], text[], text[]);
        CREATE OR REPLACE FUNCTION zelk_put_many(hosts text[], places text[], lines text[]) RETURNS void LANGUAGE sql SECURITY DEFINER AS $$
            INSERT INTO zelk_rejected SELECT now(), hosts[1], places[1], 'read here', convert_to(lines[1], 'UTF8') $$""", "refusing")
    put([line_of(61)], 2621)
    expect("a database that wants to read all lines itself gets them so", query(
        "SELECT convert_from(line, 'UTF8') FROM zelk_rejected WHERE reason = 'read here'", "refusing"), line_of(61))
    kill(gatherer)


def upgraded():
    """What version 1.1 kept, by the tables that it had, moves; once more nothing changes."""
    run("createdb", "old")
    nameless = line_of(5).replace(f'"{id_of(5)}"', "null").replace('"id_time":"2026-11-25T07:09:30.004985Z","node":"192.0.2.2",', "")
    query(f"""CREATE TABLE zelk_incident (time timestamptz, received timestamptz, key text, cause text, host text, incident json,
            PRIMARY KEY (key, time)) PARTITION BY RANGE (time);
        CREATE TABLE zelk_incident_other PARTITION OF zelk_incident DEFAULT;
        CREATE TABLE zelk_notice (received timestamptz, host text, place text, kind text, stack text, notice json);
        CREATE TABLE zelk_rejected (received timestamptz, host text, place text, reason text, line text);
        CREATE VIEW zelk_gaps AS SELECT host FROM zelk_notice;
        ALTER DATABASE old SET jit = off; ALTER DATABASE old SET hash_mem_multiplier = 1; ALTER DATABASE old SET work_mem = '3MB';
        INSERT INTO zelk_incident VALUES (to_timestamp({fleet.SECOND}), '2026-11-25 10:00Z', '{id_of(4)}', '{id_of(3)}', 'a', $${line_of(4, cause=id_of(3))}$$),
            ('2026-06-28 07:09:30Z', '2026-11-25 11:00Z', '#{"0a" * 32}', NULL, 'b', $${nameless}$$);
        INSERT INTO zelk_notice VALUES ('2026-11-25 12:00Z', 'a', '1:2', 'gap', 's', '{{"stack":"s","gap":true}}');
        INSERT INTO zelk_rejected VALUES ('2026-11-25 13:00Z', 'a', '1:3', 'why', 'no é')""", "old")

    for _ in range(2):
        run("psql", "-Xqf", fleet.FLEET + "/schema.sql", "old")
        fleet.transcript("fleet_upgraded", ID3=id_of(3), ID4=id_of(4), SECOND=str(fleet.SECOND), EARLIER="1782630570")
    query(f"SELECT zelk_put('a', '', $${line_of(4, cause=id_of(3))}$$)", "old")
    expect("and is known when it comes again", rows(database="old"), 2)


def who_may():
    fleet.transcript("fleet_privileges", {user: ([], {"PGUSER": user}) for user in ("postgres", "zelk_writer")})
    with open(fleet.REPOSITORY + "/inc/qx_zelk.h") as header:
        names = dict((int(code), name) for name, code in re.findall(r"^ +X\((ZELK_\w+), (-\d+)\)", header.read(), re.MULTILINE))
    expect("results have the names that they have here", query("SELECT code, zelk_result_name(code) FROM generate_series(-100, -1) code "
           "WHERE zelk_result_name(code) IS NOT NULL ORDER BY code DESC").splitlines(), [f"{code}|{name}" for code, name in names.items()])


# ---- Questions ----------------------------------------------------------------------------------------------------------

def forest(chance, count):
    """Lines of incidents that caused each other on several nodes: some at one time, some before their causes, some without Error
    IDs, in circles, and from causes that never come."""
    seconds = [chance.randrange(30) for _ in range(count)]
    ids = [id_of(1_000_000 * (number % 2) + number // 2, fleet.SECOND + 1000 + seconds[number - number % 2]) for number in range(count)]
    causes = [chance.choice([None, chance.choice(ids[:number + 1]), chance.choice(ids[:number + 1]), chance.choice(ids), id_of(999999), "x" * 16])
              for number in range(count)]
    causes[4], causes[5] = ids[5], ids[4]
    lines = []
    for number, (key, cause) in enumerate(zip(ids, causes)):
        line = line_of(0, cause="@").replace(f'"{id_of(0)}"', f'"{key}"').replace('"@"', json.dumps(cause)).replace(
            '"offset":24', f'"offset":{number}')
        second, micro = (sum(ALPHABET.index(digit) << 6 * place for place, digit in enumerate(key[begin:end])) for begin, end in ((7, 13), (13, 17)))
        told = datetime.datetime.fromtimestamp(second, datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%S")
        line = line.replace('"time":"2026-11-25T07:09:30Z","id_time":"2026-11-25T07:09:30.000000Z"', f'"time":"{told}Z","id_time":"{told}.{micro:06}Z"')
        if number % 10 == 9 and key not in causes:
            line = re.sub('"id":"[^"]*"', '"id":null', re.sub(',"id_time":.*?"node":"[^"]*"', "", line))
        lines.append(line)
    return lines


def put_into(database, lines, hosts):
    query("SELECT zelk_put_many(ARRAY[%s], array_agg(number::text), array_agg(line)) FROM unnest(ARRAY[%s]) WITH ORDINALITY each (line, number)"
          % (",".join(f"'{host}'" for host in hosts), ",".join(f"$${line}$$" for line in lines)), database, user="zelk_writer")


def answers_are_right(database, lines, most):
    """Holds what is answered about so many incidents of a forest against a second reading. Returns what is not right."""
    def ask(text):
        return [tuple(row.split("|")) for row in query(text, database, user="zelk_reader").splitlines()]

    told = {json.loads(line)["offset"]: json.loads(line) for line in lines}
    rows, there, wrong = {}, {}, []
    for offset, key, cause, time, host, bucket in ask("SELECT incident->>'offset', key, cause, extract(epoch FROM time), host, bucket FROM zelk_incident"):
        line = told.pop(int(offset))
        at = datetime.datetime.strptime(line.get("id_time", line["time"][:-1] + ".0Z"), "%Y-%m-%dT%H:%M:%S.%fZ").replace(tzinfo=datetime.timezone.utc)
        rows[key] = (cause or None, at)
        there[key] = (time, host, cause, offset)
        if (cause or None) != line["cause"] or datetime.datetime.fromtimestamp(0, datetime.timezone.utc) + datetime.timedelta(microseconds=int(
                float(time) * 1e6 + 0.5)) != at or key != (line["id"] or key) or host != f"node{int(offset) % 3}" or int(bucket) != model_of.bucket(key):
            wrong.append((key, cause, time, host))
    wrong += list(told)

    keys = [*list(rows)[:most], id_of(999999), "x" * 16, "nobody"]
    asked = "unnest(ARRAY[" + ",".join(f"'{key}'" for key in keys) + "]) id"
    for name, model in (("causes", model_of.causes), ("effects", model_of.effects), ("chain", model_of.chain)):
        answers = {key: [] for key in keys}
        for key, depth, found, *says in ask(f"SELECT id, depth, key, extract(epoch FROM at), host, step.cause, incident->>'offset' "
                                            f"FROM {asked}, LATERAL zelk_{name}(id) WITH ORDINALITY step ORDER BY id, ordinality"):
            answers[key].append((int(depth), found))
            if tuple(says) != there.get(found, ("",) * 4):
                wrong.append((name, key, found, says))
        wrong += [(name, key, answers[key]) for key in keys if answers[key] != model(rows, key)]
    for _, since in sorted(rows.values(), key=lambda row: row[1])[::5]:
        answer = ask(f"SELECT key, effects, extract(epoch FROM at), host, incident->>'cause', incident->>'offset' FROM zelk_first_causes('{since}')")
        if {key: (int(effects), tuple(says)) for key, effects, *says in answer} != {
                key: (effects, there.get(key, ("",) * 4)) for key, (effects, _) in model_of.first_causes(rows, since).items()}:
            wrong.append(("first causes", since, answer))
        if answer != sorted(answer, key=lambda row: (-int(row[1]), row[2] or "~", answer.index(row))):
            wrong.append(("order of first causes", since, answer))
    return wrong


def questions():
    """Chains in one database, in three that share the rows, and as Citus distributes them, held against a second reading."""
    seed = int.from_bytes(os.urandom(4), "big")
    lines = forest(random.Random(seed), 40)
    hosts = [f"node{number % 3}" for number in range(40)]
    for name in ("whole", "third1", "third2", "third3"):
        fleet.make_database(name)
    fleet.spread("third1", "third2", "third3")
    with open(fleet.FLEET + "/schema-citus.sql") as file: # as far as can be seen without Citus
        script = file.read().replace("CREATE EXTENSION IF NOT EXISTS citus;", """
            CREATE FUNCTION create_distributed_table(name regclass, by text) RETURNS void LANGUAGE sql AS 'SELECT';""")
    fleet.make_database("citus")
    query(script, "citus")
    for name, asked, most in (("whole", "whole", 40), ("third2", "third3", 8), ("citus", "citus", 8)):
        for _ in range(2):
            put_into(name, lines, hosts)
        expect(f"answers of {asked} are right (seed {seed})", answers_are_right(asked, lines, most), [])
    put_into("citus", [lines[0].replace("disk07", "disk08"), "no line", '{"stack":"disks","gap":true}'], ["node0"] * 3)
    expect("what is no row of Citus is told", (query("SELECT reason FROM zelk_rejected ORDER BY 1", "citus"), query("SELECT gaps FROM zelk_gaps", "citus")),
           ("another incident has this Error ID\nnot a line of zkexport", "1"))
    expect("months are made and dropped there, and rows have columns", query("SELECT count(*) FROM zelk_plain; SELECT zelk_make_partition('2026-01-15'); "
           "SELECT zelk_drop_before(now() - '2026-02-01Z')", "citus").split(), ["40", "1"])
    fleet.transcript("fleet_plain", ID=json.loads(lines[0])["id"], TIME=query(f"SELECT zelk_time('{json.loads(lines[0])['id']}')"))


def many_effects():
    """It takes no longer than they are many, also before the database has any statistics."""
    fleet.make_database("young")
    put_into("young", [line_of(number, cause=id_of(0) if number else None) for number in range(5001)], ["many"] * 5001)
    expect("many effects are found at once", query(f"SET statement_timeout = '25s'; SELECT count(*) FROM zelk_chain('{id_of(0)}')", "young"), "5001")


def checks():
    """What zelk-check says to monitoring when nodes were added, and lines came, so long ago; an incident has a host, its age, and how long it took."""
    fleet.make_database("checked")
    query("""CREATE FUNCTION forget() RETURNS void LANGUAGE sql AS $$ TRUNCATE zelk_node, zelk_notice, zelk_rejected, zelk_incident;
            INSERT INTO zelk_notice SELECT now(), 'a', '', 'error', 'b', '{}' $$;
        CREATE FUNCTION node(host text, age interval) RETURNS void LANGUAGE sql AS 'INSERT INTO zelk_node VALUES (host, now() - age)';
        CREATE FUNCTION gap(age interval) RETURNS void LANGUAGE sql AS $$ INSERT INTO zelk_notice VALUES (now() - age, 'a', age, 'gap', 'b', '{}') $$;
        CREATE FUNCTION rejected(age interval) RETURNS void LANGUAGE sql AS $$ INSERT INTO zelk_rejected VALUES (now() - age, 'a', age, '', '') $$;
        CREATE FUNCTION incident(host text, age interval, taken interval) RETURNS void LANGUAGE sql AS
            $$ INSERT INTO zelk_incident VALUES (0, now() - age, now() - age + taken, age, NULL, host, '{}') $$;
        ALTER DATABASE checked SET timezone = 'Asia/Kolkata'; ALTER DATABASE checked SET datestyle = 'SQL'""", "checked")
    fleet.transcript("fleet_checks", {user: ([], {"PGUSER": user, "PGDATABASE": "checked"}) for user in ("postgres", "zelk_reader")})


def pages():
    """What zelk-page writes, word for word. The database and the machine have other zones."""
    fleet.make_database("paged")
    query("ALTER DATABASE paged SET timezone = 'Asia/Kolkata'; ALTER DATABASE paged SET datestyle = 'SQL'")
    day = (int(time.time()) - 85000) // 60 * 60

    def line(number, cause=None, product="stn.node", stack="disks"):
        return line_of(number, day + number, cause).replace('"product":"stn.node"', '"product":' + json.dumps(product)).replace('"disks"', f'"{stack}"')

    keys = [id_of(number, day + number) for number in range(7)]
    evil = line(1).replace("8589934712, 0.5.", "<b>&amp;\\u001B\\u009b</b>").replace('"name":"diskmon"', '"name":"<s>"')
    nameless = re.sub('"id":"[^"]*"', '"id":null', re.sub(',"id_time":.*?"node":"[^"]*"', "", line(0)))
    names = {}
    for number, key in enumerate(keys):
        at = time.strftime("%Y-%m-%d %H:%M:%SZ", time.gmtime(day + number))
        local = time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(day + number - 18000))
        names |= {f"ID{number}": key, f"FILE{number}": key.replace("/", "_"), f"AT{number}": at, f"ISO{number}": at.replace(" ", "T"), f"LOCAL{number}": local}
    told = [("here", evil), ("there", line(2, keys[1], "a<\\")), ("there", line(3, keys[2], "")), ("there", line(4, "nobody/#")), ("here", line(5)),
            ("node", line(6, stack="zelk-alive")), ("node", line_of(99, day - 2500)), ("old", nameless), *[("<i>", '{"stack":"<u>","gap":true}')] * 2,
            ("here", "<s>no line"), ("here", "none"), ("old", '{"stack":"b","gap":true}'), ("old", "none")]
    variables = {"PGUSER": "zelk_reader", "PGDATABASE": "paged", "TZ": "EST5"}
    fleet.transcript("fleet_page_empty", {"": ([], variables)})
    for number, (host, each) in enumerate(told):
        query(f"SELECT zelk_put('{host}', '{number}', $Q${each}$Q$)", "paged")
    query("UPDATE zelk_notice SET received = to_timestamp(place::int); UPDATE zelk_rejected SET received = to_timestamp(1e9 + place::int)", "paged")
    fleet.transcript("fleet_page", {"": ([], variables)}, **names)

    # More than there is room for.
    fleet.make_database("crowded")
    crowd = [line_of(number, day, id_of(0, day) if 0 < number < 2100 else None).replace("stn.node", f"p{number % 210}") for number in range(2200)]
    hosts = [f"h{number % 210}" for number in range(2200)] + [f"h{number // 2}" for number in range(420)]
    put_into("crowded", crowd + ['{"stack":"s","gap":true}', "none"] * 210, hosts)
    query("ANALYZE", "crowded")
    folder = fleet.folder + "/crowd"
    os.mkdir(folder)
    subprocess.run([fleet.FLEET + "/zelk-page", folder], env=fleet.environment | {"PGDATABASE": "crowded"}, check=True)
    tables = [table.count("<tr><td") for table in open(folder + "/index.html").read().split("<caption>")[1:]]
    expect("a page has fifty chains, and two hundred of all else", tables, [50, 200, 200, 200, 200])
    chain = open(f"{folder}/chain-{id_of(0, day).replace('/', '_')}.html").read()
    expect("and a chain two thousand incidents", sum(id_of(number, day) in chain for number in range(2200)), 2000)


# ---- Frames -------------------------------------------------------------------------------------------------------------

def hostile_frames(gatherer):
    opening = b"1 open 0\n"
    for frame, reason in (
            (b"\0" * 100, "no number"), (b"GET / HTTP/1.1\r\n\r\n", "no number"), (b"99999999999 open 0\n", "no number"),
            (b"1,open 0\n", "no blank behind the number"), (b"1 open\n0\n", "no command"), (b"1 open -1\n", "no length"),
            (b"2 open 0\n", "a number that does not follow"), (b"1 syslog 1 x\n", 'a command before "open"'), (b"1 close 0\n", 'a command before "open"'),
            (opening + b"3 syslog 1 x\n", "a number that does not follow"), (opening + b"2 open 0\n", "a command that is unknown here"),
            (opening + b"2 syslog 1000000000 x", "no length"), (opening + b"2 syslog 65537 " + b"x" * 65537 + b"\n", "longer than 64 KiB"),
            (opening + b"2 syslog 3 abcdef\n", "a length that is not"), (opening + b"2 syslog 3-abc\n", "no blank behind the length"),
            (opening + b"2 rsp 6 200 OK\n", "a command that is unknown here"), (b"1 " + b"o" * 33, "a command that is too long"), (b"1 " + b"o" * 32 + b" 0\n", 'a command before "open"'), (b"1 op3n 0\n", "no command"),
            (opening + b"2 azAZ 1 x\n", "a command that is unknown here"), (opening + b"2 close 0 x\n", "a length that is not"),
            (b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", "no number")):
        before = os.path.getsize(gatherer.log)
        told = f"a frame that is none: {reason}"
        if not wait_until(lambda: ends_after(Conversation(is_open=False), (0, frame)) < 20 and told in open(gatherer.log).read()[before:]):
            expect(f"a frame that is none ends its connection: {frame[:40]!r}", open(gatherer.log).read()[before:], reason)  # not more than ten a second are said
    expect("nothing that a node sends ends the gatherer", gatherer.poll(), None)


def frames_are_answered():
    answer = b"200 OK\nrelp_version=0\nrelp_software=zelk-gather\ncommands=syslog"
    line = b"<134>1 - node9 zelk answered:1 - - " + line_of(8000).encode()
    frames = b"1 open 3 any\n2 syslog %d %s\n3 syslog 0\n4 close 0 \n5 syslog 1 x\n" % (len(line), line)
    for size in (len(frames), 1):
        conversation = Conversation(is_open=False)
        conversation.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for at in range(0, frames.index(b" \n5") + 2 if size == 1 else size, size):
            conversation.socket.sendall(frames[at:at + size])
        answers = b"".join(iter(lambda: conversation.socket.recv(4096), b""))
        expect(f"frames that come by {size} bytes are answered in their order, and the last one ends the connection", answers,
               b"1 rsp %d %s\n2 rsp 6 200 OK\n3 rsp 6 200 OK\n4 rsp 0\n0 serverclose 0\n" % (len(answer), answer))


def messages_say_where_they_come_from():
    name = "h" * 255
    conversation = Conversation()
    for number, message in enumerate([
            "<134>1 - h-1.x:y_z zelk 7.json:9 - - text", "<0>1 - - zelk - - - text", "<134>1 - a/b zelk p,q - - text", f"<1>1 - {name} zelk p - - text",
            f"<1>1 - {name}h zelk p - - text", "134>1 - h zelk p - - text", "<134>2 - h zelk p - - text", "<134>1 - h zelk p - x text", "<134>1 - h zelk p  - text", "text"]):
        conversation.say("syslog", f"{message} {number}".encode())
    conversation.wait()
    fleet.transcript("fleet_messages", NAME=name)


def listens(main):
    """Wherever it is told to; who else could reach it is told where nobody has to say who he is."""
    try:
        socket.create_server(("::1", 0), family=socket.AF_INET6).close()
    except OSError:
        fleet.say("no addresses are tried, since this machine has none with colons")
        return
    addresses = {"2661": True, "127.0.0.1:2662": True, "[::1]:2663": True, "localhost:2664": True, "*:2665": False, "0.0.0.0:2666": False}
    gatherer = start_gatherer(*("--listen=" + address for address in addresses), f"--database={fleet.conninfo()}", port=2666, name="listens")
    log = open(gatherer.log).read()
    expect("it warns of addresses that others reach", {address: f" {address} is in the open" not in log for address in addresses}, addresses)
    for port, address in ((2661, "127.0.0.1"), (2662, "127.0.0.1"), (2663, "::1"), (2664, "127.0.0.1"), (2665, "::1"), (2665, "127.0.0.1"), (2666, "127.0.0.1")):
        Conversation(port, address=address).close()
    with socket.socket() as other:
        expect("a port alone is one of 127.0.0.1", other.connect_ex(("127.0.0.2", 2661)), errno.ECONNREFUSED)
    relay = start_gatherer("--listen=127.0.0.1:2667", "--relay=[::1]:2663", port=2667, name="to6")
    put([line_of(8001)], 2667)
    put(["no line by a relay"], 2667, host="-", place="7.json")
    expect("a relay reaches an address with colons, and hands on where lines come from", (rows(f"key = '{id_of(8001)}'"), query(
        "SELECT host, place FROM zelk_rejected WHERE line = 'no line by a relay'")), (1, "|7.json:0"))
    kill(relay)
    spool = make_spool("spool6", _1=line_of(8001) + "\n")
    for address, taker in (("[::1]:2665", gatherer), ("localhost:2665", gatherer), ("[::1]", main), ("localhost", main)):
        before = lines_taken(taker)
        forward = fleet.start("zelk-forward", "--spool=" + spool, address)
        if not wait_until(lambda: lines_taken(taker) == before + 1):
            expect(f"what sends reaches {address}", lines_taken(taker), before + 1)
        kill(forward)
    kill(gatherer)


def tells_how_it_stands():
    """All that systemd and the log are told by one that has three sessions, three lines and a node that says nothing right."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as systemd:
        systemd.bind("\0told")
        systemd.settimeout(20)
        kill(start_gatherer("--listen=127.0.0.1:2670", "--relay=a:1", port=2670, name="abstract", NOTIFY_SOCKET="@told"))
        expect("systemd hears by an abstract name", systemd.recv(100), b"READY=1")
    path = fleet.folder + "/notify"
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as systemd:
        systemd.bind(path)
        systemd.settimeout(20)
        gatherer = start_gatherer("--listen=127.0.0.1:2670", f"--database={fleet.conninfo()}", "--sessions=3", "--lines=1", port=2670, name="told",
                                  NOTIFY_SOCKET=path)
        wait_until(lambda: says(gatherer, "0 of 3 sessions away"))
        put([line_of(8010 + number) for number in range(3)], 2670)
        liar = Conversation(2670, is_open=False)
        liar.socket.sendall(b"nothing")
        wait_until(lambda: "no number" in open(gatherer.log).read())
        told = []

        def hear(what):
            told.append(systemd.recv(100).decode())
            return what in told

        for signal_to_send, answer in ((0, "WATCHDOG=1"), (signal.SIGHUP, "RELOADING=1"), (signal.SIGTERM, "STOPPING=1")):
            gatherer.send_signal(signal_to_send)
            while not hear(answer):
                pass
        gatherer.wait()
    expect("systemd hears of its beginning, life, reading anew and end", [word for at, word in enumerate(told) if word not in told[:at] or word == "READY=1"],
           ["READY=1", "WATCHDOG=1", "RELOADING=1", "READY=1", "STOPPING=1"])


def neighbours():
    """A node that tells the worst there is does not hold up what another one tells after it."""
    # Deep, long, full of numbers and escapes, and such that are nearly right.
    worst = ['{"stack":"' + "\\u0001" * 10000 + '","gap":true}', line_of(1).replace("slot 7", "\\u009f" * 10000),
             line_of(2).replace('"value":0.5', '"value":' + ",".join(["1e+300"] * 9000)),
             '{"stack":"a","offset":' + "[" * 60000, "{" * 60000, line_of(3)[:-1] + ',"a":1' * 9000 + "}"]
    floods, quiet = [Conversation(host="flood") for _ in range(3)], Conversation(host="quiet")
    for number, flood in enumerate(floods):
        flood.tell(worst * 10, place=f"f{number}")
    quiet.tell([line_of(40000)])
    for conversation in [quiet, *floods]:
        conversation.wait()
        conversation.close()
    before, count = map(int, query("SELECT count(*) FILTER (WHERE received < (SELECT received FROM zelk_incident WHERE host = 'quiet')), count(*) "
                                   "FROM zelk_rejected WHERE host = 'flood'").split("|"))
    expect(f"of {count} lines that were told before a quiet node's {before} are taken before it, and not nearly all", before < count * 0.9, True)


def half_open(gatherer, silent):
    """Connections that say nothing, opened before all the rest."""
    expect("connections that say nothing are closed", wait_until(lambda: len(select.select(silent, [], [], 0)[0]) == len(silent)), True)
    said = open(gatherer.log).read().count("nothing came by which it says that it is a node")
    expect("and not all of them are told of", 10 <= said < len(silent) / 2, True)  # ten a second


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


# ---- Time and room ------------------------------------------------------------------------------------------------------

def ends_after(conversation, *pieces):
    """Sends pieces, each after so many seconds, and returns the seconds until the gatherer has closed."""
    conversation.socket.settimeout(90)
    begin = time.monotonic()
    try:
        for seconds, piece in pieces:
            time.sleep(seconds)
            conversation.socket.sendall(piece)
        while conversation.socket.recv(4096):
            pass
    except OSError:  # a reset, or the limit
        pass
    return time.monotonic() - begin


def patience():
    """How long whoever says nothing more is waited for. It goes on beside all the rest. Returns what has come of it, in that order."""
    begin = time.monotonic()
    with socket.create_server(("127.0.0.1", 0)) as deaf, concurrent.futures.ThreadPoolExecutor(9) as pool:
        port = deaf.getsockname()[1]
        with open(fleet.folder + "/deaf.log", "w") as output:
            fleet.start("zelk-forward", "--spool=" + make_spool("deaf", _1="x\n"), f"127.0.0.1:{port}", output=output)
        logs = [output.name] + [start_gatherer(f"--listen=127.0.0.1:{own}", option, port=own, name=f"deaf{own}").log for own, option in (
            (2671, f"--relay=127.0.0.1:{port}"), (2672, f"--database=host=127.0.0.1 port={port} user=x sslmode=disable"),
            (2675, "--relay=192.0.2.9:1"), (2676, "--database=host=127.0.0.1 port=1"))]
        half = b"2 syslog 9 abc"
        ended = [pool.submit(ends_after, Conversation(is_open=is_open), *pieces) for is_open, pieces in (
            (False, []), (False, [(0, b"1 open")]), (True, [(0, half)]), (False, [(8, b"1 open 0\n"), (1, b"2 close 0\n")]),
            (True, [(0, half), (20, b"defghi\n3 syslog 9 abc"), (20, b"defghi\n4 close 0\n")]), (True, [(31, half), (5, b"defghi\n3 close 0\n")]))]
        answered = [pool.submit(lambda log=log, why=why: wait_until(lambda: why in open(log).read(), limit=60) and time.monotonic() - begin) for log, why in zip(
            logs, (": 127.0.0.1: it does not answer\n", f": 127.0.0.1:{port}: it does not answer\n", ": session 1: does not answer: "))]
        came = pool.submit(comes_again)
        return [each.result() for each in ended], [each.result() for each in answered], logs, begin, came.result()


def comes_again():
    """When what has 60 megabytes to send comes to a middle that leaves it each time, the fourth time after a line, and how many it has in memory."""
    with socket.create_server(("127.0.0.1", 0)) as fickle:
        fickle.settimeout(30)
        forward = fleet.start("zelk-forward", "--spool=" + make_spool("fickle", _1=("x" * 60000 + "\n") * 1000), "127.0.0.1:%d" % fickle.getsockname()[1])
        came = []
        for number in range(5):
            connection, _ = fickle.accept()
            came.append(time.monotonic())
            connection.settimeout(30)
            frames = fleet.frames_of(connection)
            for answer in (b"1 rsp 6 200 OK\n", b"2 rsp 6 200 OK\n") if number == 3 else ():
                next(frames)
                connection.sendall(answer)
            connection.shutdown(socket.SHUT_WR)
            for _ in frames:
                pass
            connection.close()
    with open(f"/proc/{forward.pid}/status") as file:
        return came, int(re.search(r"VmHWM:\s+(\d+)", file.read())[1]) / 1000


def was_patient(found):
    ended, answered, logs, begin, (came, megabytes) = found
    expect("who says nothing that is whole has ten seconds to begin with a frame, and thirty for each after that", [
        low - 2 <= seconds < 90 for seconds, low in zip(ended, (10, 10, 30, 9, 40, 36))], [True] * 6)
    expect("so long is waited for an answer", [10 <= seconds for seconds in answered], [True] * 3)
    expect("what sends waits ever longer, 1, 2, 4 seconds, and 1 after an answer", (came[3] - came[0] > 6, came[4] - came[3] < 7), (True, True))
    expect(f"and has few lines in memory, {megabytes} megabytes", megabytes < 30, True)

    def told(what):
        return [len(re.findall(what, open(log).read())) for log in logs[-2:]]

    expect("how it stands is told each minute", wait_until(lambda: min(told("status: ")) > 0, limit=120) and max(told("status: ")) <= (time.monotonic() - begin) / 60, True)
    expect("and who is away", [set(re.findall("; ([^;]*) away\n", open(log).read())) for log in logs[-2:]], [{"1 of 1 gatherers"}, {"2 of 2 sessions"}])
    refused = "er: 192.0.2.9:1: Network is unreachable\n| session 1: cannot connect: .* refused\n"
    expect("whoever cannot be reached is tried again each three seconds", wait_until(lambda: min(told(refused)) > 13, limit=60)
           and max(told(refused)) <= 10 + (time.monotonic() - begin) / 3, True)
    expect("why nothing is sent is told once", wait_until(lambda: open(logs[0]).read().count("Connection refused") == 1), True)


def crowd():
    """As many connections as it may have descriptors; when there are more, the oldest goes of those that have not said who they are."""
    with open(fleet.folder + "/crowd.log", "w") as output:
        gatherer = fleet.start("prlimit", "--nofile=200", "zelk-gather", "--listen=127.0.0.1:2673", f"--database={fleet.conninfo()}", output=output)
    gatherer.log = output.name
    wait_until(lambda: fleet.is_listening(2673))
    begun = [Conversation(2673) for _ in range(200 - 64)]
    late = Conversation(2673, is_open=False)
    late.say("open", b"")
    has_room = select.select([late.socket], [], [], 0.3)[0] != []
    begun.pop().close()
    late.wait()
    expect("whoever finds no room waits for it", has_room, False)
    for each in begun:
        each.close()
    silent = [Conversation(2673, is_open=False) for _ in range(200 - 64 - 1)]
    wait_until(lambda: says(gatherer, "; 136 connections, 273 "))
    last = Conversation(2673)
    expect("it is made by the oldest that has not begun", silent[0].socket.recv(9), b"")
    expect("which is told", wait_until(lambda: "too many connections have not begun" in open(gatherer.log).read()), True)
    for each in silent[1:]:
        each.say("open", b"")
        each.wait()
    expect("and by no other", last.answered, 1)
    kill(gatherer)


def away():
    """While the database takes nothing it is waited with a bounded number of lines, of each node and of all; then they are there."""
    fleet.make_database("away")
    query("ALTER TABLE zelk_incident RENAME TO zelk_away", "away")
    gatherer = start_gatherer("--listen=127.0.0.1:2674", f"--database={fleet.conninfo('away')} client_encoding=LATIN1", port=2674, name="away")
    many, long = Conversation(2674), Conversation(2674)
    telling = threading.Thread(target=lambda: (many.tell([line_of(number) for number in range(2100)]), long.tell(["\u00e9" * 20000] * 150)))
    telling.start()
    size = len("<134>1 - node9 zelk 1.json:000 - - ") + 40000
    count = -(-(4 << 20) // size)
    status = r"0 lines in 0 commits; 2 connections, 3 since the start, 0 refused; %d lines \((\d+) KiB\) wait, the oldest for (\S+) s; 0 of 2 sessions away"

    def is_told():
        says(gatherer, "")
        found = re.findall(status % (2000 + count), open(gatherer.log).read())
        return found and 4096 < int(found[-1][0]) < 6500 and float(found[-1][1]) > 0.1

    expect("of one node wait two thousand lines, or four megabytes", bool(wait_until(is_told)), True)
    crowd = [Conversation(2674) for _ in range(101)]
    for each in crowd:
        each.tell(["x"] * 2000)
    expect("of all of them two hundred thousand", wait_until(lambda: says(gatherer, "; 200000 lines (")), True)
    for each in crowd:
        each.close()
    query("ALTER TABLE zelk_away RENAME TO zelk_incident", "away")
    for each in (many, long):
        each.wait()
    telling.join()
    expect("then they are there", rows(database="away"), 2100)
    expect("whatever encoding the conninfo names", query("SELECT count(*) FROM zelk_rejected WHERE line = convert_to(repeat('\u00e9', 20000), 'UTF8')", "away"), "150")

    # What is under way when it is asked to end is still answered for, unless that takes longer than systemd would wait.
    for is_late in (False, True):
        lock = subprocess.Popen(["psql", "-Xq", "away"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        lock.stdin.write("BEGIN; LOCK TABLE zelk_incident;\n\\echo locked\n")
        lock.stdin.flush()
        lock.stdout.readline()
        node = Conversation(2674)
        node.tell([line_of(number) for number in range(5000, 5010)])
        wait_until(lambda: says(gatherer, "; 10 lines ("))
        begin = time.monotonic()
        gatherer.send_signal(signal.SIGINT if is_late else signal.SIGTERM)
        expect("who asks it to end is not let in any more", wait_until(lambda: not fleet.is_listening(2674)), True)
        if not is_late:
            lock.stdin.close()
        said = b"".join(frame for frame in iter(lambda: node.socket.recv(4096), b""))
        expect("it ends in time, and says so", (said.count(b" rsp 6 200 OK"), said.endswith(b"0 serverclose 0\n"), gatherer.wait(), 4 < time.monotonic() - begin), (
            0 if is_late else 10, True, 0, is_late))
        lock.stdin.close()
        lock.wait()
        gatherer = start_gatherer("--listen=127.0.0.1:2674", f"--database={fleet.conninfo('away')}", port=2674, name="away2")
    kill(gatherer)


# ---- Killing ------------------------------------------------------------------------------------------------------------

def killed_gatherers():
    """Of 20 gatherers that are killed none has answered for what is not there."""
    acknowledged = 0
    for number in range(20):
        gatherer = start_gatherer("--listen=127.0.0.1:2600", f"--database={fleet.conninfo()}", port=2600, name="killed")
        conversation = Conversation(2600, host=f"kill{number}")
        conversation.tell([line_of(100000 + number * 500 + line) for line in range(500)])
        try:
            conversation.wait(random.randrange(1, 400))
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
    make_certificate("plain", "authority", None, "/O=example/CN=plain.example")
    make_certificate("nameless", "authority", None, "/O=example")
    make_certificate("unprintable", "authority", None, "/CN=a\tb")
    fleet.revoke("authority")
    middle = start_gatherer("--listen=127.0.0.1:2610", f"--database={fleet.conninfo()}", "--trust=site.example", "--trust=nobody.example",
                            f"--tls-crl={fleet.folder}/authority.crl", *fleet.tls_options("middle", "authority"), port=2610, name="middle")
    site = start_gatherer("--listen=127.0.0.1:2611", "--relay=middle.example:2610", *fleet.tls_options("site", "authority"),
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
        put([line_of(number) for number in numbers], port, "somebody.else", tls=context("liar"))
    expect("a node's name is its certificate's, through relays too", query(
        "SELECT host || ' ' || count(*) FROM zelk_incident WHERE host LIKE '%.example' OR host LIKE 'some%' GROUP BY host"),
        "liar.example 2010")

    def is_refused(tls):
        try:
            Conversation(2610, tls=tls)
            return False
        except OSError:
            return True

    expect("nobody else is let in", [is_refused(tls) for tls in (
        None, context(None), context("foreign"), context("nameless"), context("unprintable"))], [True] * 5)
    put([line_of(72100)], 2610, tls=context("plain"))
    expect("a certificate without DNS names has a common name", rows("host = 'plain.example'"), 1)
    astray = start_gatherer("--listen=127.0.0.1:2612", "--relay=localhost:2610", *fleet.tls_options("site", "authority"), port=2612, name="astray")
    with open(fleet.folder + "/astray2.log", "w") as output:
        sender = fleet.start("zelk-forward", "--spool=" + fleet.folder, *fleet.tls_options("site", "authority"), "localhost:2610", output=output)
    expect("a gatherer that is named otherwise is told nothing", [wait_until(lambda: "name in the certificate does not match" in open(log).read())
                                                                  for log in (astray.log, output.name)], [True, True])
    kill(astray)
    kill(sender)

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

    os.replace(fleet.folder + "/foreign.pem", fleet.folder + "/middle.pem")
    middle.send_signal(signal.SIGHUP)
    expect("certificates that cannot be used change nothing", (wait_until(lambda: "do not match" in open(middle.log).read()), is_refused(context("honest"))), (True, False))
    os.replace(fleet.folder + "/foreign.key", fleet.folder + "/middle.key")
    os.replace(fleet.folder + "/stranger.pem", fleet.folder + "/authority.pem")
    site.send_signal(signal.SIGHUP)
    expect("a relay leaves a gatherer that it does not accept any more", wait_until(lambda: "issuer is unknown. \n" in open(site.log).read()), True)
    middle.send_signal(signal.SIGHUP)
    time.sleep(0.3)
    expect("SIGHUP reads certificates anew", is_refused(context("honest")), True)
    expect("and ends connections by those that do not hold any more", goes_on(connections[1]), False)
    expect("and nothing has ended", middle.poll(), None)


def several_addresses():
    """Whichever address of a name answers, it is found."""
    servers = [socket.create_server((address, 0)) for address in ("127.0.0.1", "127.0.0.2")]
    for number, server in enumerate(servers):
        address = "two.example:%d" % server.getsockname()[1]
        fleet.start("zelk-forward", f"--spool={fleet.folder}", address)
        start_gatherer(f"--listen=127.0.0.1:{2680 + number}", "--relay=" + address, port=2680 + number, name=f"two{number}")
    for server in servers:
        server.settimeout(20)
        connections = [server.accept()[0] for _ in range(2)]
        greeted = sorted(next(fleet.frames_of(connection))[2] for connection in connections)
        expect("one of two addresses is tried after the other", [b"zelk-forward" in greeted[0], b"zelk-gather" in greeted[1]], [True, True])


def several_databases():
    """Rows in two databases, and then in three: any of them can be asked, and takes any line."""
    parts = ("part1", "part2", "third part")
    for name in parts:
        fleet.make_database(name)
    fleet.spread("part1", "part2")
    gatherer = start_gatherer("--listen=127.0.0.1:2622", f"--database={fleet.conninfo('part1')}", "--database=host=/nowhere", port=2622, name="half")
    node = Conversation(2622)
    node.tell([line_of(number) for number in range(2000, 2300)])
    mine = {id_of(number) for number in range(2000, 2300) if model_of.bucket(id_of(number)) < 2048}
    expect("a database gets the lines of its buckets, also while another one is away", wait_until(
        lambda: set(query("SELECT key FROM zelk_incident", "part1").split()) == mine), True)
    kill(gatherer)
    query("DELETE FROM zelk_incident", "part1")
    gatherer = start_gatherer("--listen=127.0.0.1:2620", *(f"--database={fleet.conninfo(name)}" for name in ("part1", "part2")),
                              port=2620, name="parts")
    put([line_of(number, cause=id_of(number - 1) if number else None) for number in range(400)], port=2620)
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
    fleet.spread(*parts)
    here = [int(query("SELECT count(*) FROM zelk_incident_here", name)) for name in parts]
    expect("each has those that a gatherer gives it", [query(f"SELECT DISTINCT bucket * 3 / 4096 FROM zelk_incident_here", name) for name in parts], ["0", "1", "2"])
    expect(f"rows move when a database is added, {here}", (sum(here), min(here) > 80, rows(database=parts[2])), (404, True, 404))
    expect("each knows where the others are, and as whom they are asked", query(
        "SELECT srvname, srvoptions, usename, umoptions FROM pg_user_mappings JOIN pg_foreign_server USING (srvname) ORDER BY srvname, usename", "part1").splitlines(), [
            f"{server}|{{async_capable=true,host={fleet.folder},{name}}}|{user}" for server, name in (("zelk_2", "dbname=part2"), ("zelk_3", '"dbname=third part"'))
            for user in ("postgres|{user=postgres}", "zelk_reader|{password_required=false,user=postgres}")])
    key = query("SELECT key FROM zelk_incident_here LIMIT 1", parts[2])
    plan = query(f"EXPLAIN (ANALYZE, VERBOSE, COSTS OFF) SELECT i.key FROM unnest(ARRAY['{key}']) key, zelk_row(key) i", "part1")
    expect("a key is looked for in its own database only, which is told the time that its index begins with",
           (re.findall(r"Foreign Scan on public.(\w+) .*actual", plan), plan.count('("time" = $')), (["zelk_incident_3"], 2))


# ---- Setting up ---------------------------------------------------------------------------------------------------------

STUBS = {"systemctl": 'echo "$*" >>"$ROOM/systemctl"', "systemd-sysusers": "groupadd -f zelk-reader; id zelk-gather >/dev/null 2>&1 || useradd -r zelk-gather",
         "hostname": "uname -n"}


class Sandbox:
    """A machine for set-up commands: /etc and /var are its own, and what systemd is asked is noted."""

    def __init__(self, name):
        self.room = f"{fleet.folder}/{name}"
        self.etc = self.room + "/etc/zelk"
        for part in ("etc", "work", "bin", "tmp"):
            os.makedirs(f"{self.room}/{part}")
        for stub, does in STUBS.items():
            with open(f"{self.room}/bin/{stub}", "w") as file:
                file.write(f"#!/bin/sh\n{does}\n")
            os.chmod(f"{self.room}/bin/{stub}", 0o755)
        self.environment = {"PATH": f"{self.room}/bin:{fleet.FLEET}:" + os.environ["PATH"], "ROOM": self.room, "TMPDIR": self.room + "/tmp", "ZELK_SHARE": fleet.FLEET}
        self.holder = fleet.start("unshare", "--mount", "--uts", "sh", "-c", f"""
            mount -t overlay overlay -o lowerdir=/etc,upperdir={self.room}/etc,workdir={self.room}/work /etc && mount -t tmpfs none /var &&
            mount -t tmpfs none /run && mkdir -p /run/zelk-forward /var/lib/zelk/spool /var/cache/zelk/pages /var/adm/zelk/stacks &&
            echo '127.0.0.1 localhost middle.example' >/etc/hosts && echo {name} >/proc/sys/kernel/hostname && touch {self.room}/ready && sleep infinity""")
        wait_until(lambda: os.path.exists(self.room + "/ready"))

    def enter(self, *command):
        return ["nsenter", "--target", str(self.holder.pid), "--mount", "--uts", *command]

    def start(self, *command, output=None, **variables):
        return fleet.start(*self.enter(*command), output=output, **(self.environment | variables))

    def start_unit(self, name, output=None):
        """Starts what a unit starts, with the variables that it has, if what it asks for is there."""
        def told(setting):
            return re.findall(rf"^{setting}=(.*)", unit, re.MULTILINE)

        with open(f"{fleet.FLEET}/{name}.service") as file:
            unit = file.read()
        lines = [shlex.split(line)[0] for line in told("Environment")]
        for path in told("EnvironmentFile"):
            lines += re.findall("^[A-Z].*", open(self.room + path).read(), re.MULTILINE)
        known = dict(line.split("=", 1) for line in lines)
        words = []
        for word in shlex.split(told("ExecStart")[0]):
            words += known[word[1:]].split() if re.fullmatch(r"\$\w+", word) else [re.sub(r"\$\{(\w+)\}", lambda found: known[found[1]], word)]
        missing = [path for path in told("ConditionPathExists") if not os.path.exists(self.room + path)]
        return self.start("false" if missing else os.path.basename(words[0]), *words[1:], output=output, **known)


def setting_up():
    """A middle and a node are set up by their commands, lines go from one to the other, and no more when the node is shut out."""
    middle, node = Sandbox("middle7"), Sandbox("node7")
    hosts = {"middle": (middle.enter(), middle.environment), "node": (node.enter(), node.environment)}
    fleet.make_database("set_up")
    query("ALTER DATABASE set_up SET log_statement = 'ddl'; ALTER DATABASE set_up SET log_min_duration_statement = 0")
    fleet.transcript("fleet_set_up", hosts)
    gatherer = middle.start_unit("zelk-gather")
    wait_until(lambda: fleet.is_listening(2690))
    with open(node.room + "/log", "w") as output:
        forward = node.start_unit("zelk-forward", output)
    spool = node.start_unit("zelk-export")

    def lives():
        node.start_unit("zelk-alive").wait()
        return query("SELECT host, incident->>'stack', incident #>> '{process,name}', incident #>> '{source,product}' FROM zelk_incident "
                     "WHERE incident->>'description' = 'The incidents of this node arrive.' ORDER BY time DESC LIMIT 1", "set_up")

    expect("signs of life go from one to the other, under the node's name", wait_until(lambda: lives() == "node7|zelk-alive|zelk-alive|zkview"), True)
    node.start("zelk-node-setup", f"--certificates={fleet.folder}/command8", "middle.example:2690").wait()
    forward.send_signal(signal.SIGHUP)
    expect("what sends connects anew by new certificates", (wait_until(lambda: lives().startswith("node8|")), re.findall(
        ": ((?:connect|is|it|The).*)", open(node.room + "/log").read())), (True, ["connected", "connects anew, by the certificates as they are now", "connected"]))
    node.start("sh", fleet.folder + "/command7").wait()
    query("INSERT INTO zelk_rejected SELECT now() - age * interval '1 day', 'yearly', age, '', '' FROM unnest(ARRAY[364, 367]) age")
    expect("pages are written, and what is older than a year is dropped", ([middle.start_unit(unit).wait() for unit in ("zelk-page", "zelk-drop")], os.listdir(
        f"/proc/{middle.holder.pid}/root/var/cache/zelk/pages").count("index.html"), query("SELECT place FROM zelk_rejected WHERE host = 'yearly'")), ([0, 0], 1, "364"))
    fleet.transcript("fleet_shut_out", hosts)
    for process in (spool, forward, gatherer, middle.holder, node.holder):
        kill(process)


def setting_up_shared():
    """A middle whose rows lie in two databases, of which it knows two hosts each."""
    middle = Sandbox("middle8")
    for name in ("half1", "half2"):
        fleet.make_database(name)
    put_into("half1", [line_of(number) for number in range(99)], ["node7"] * 99)
    one, two = (f"\"--database=host=127.0.0.1,127.0.0.2 target_session_attrs='read-write' user=postgres password='secret' dbname={name}\""
                for name in ("half1", "half2"))
    fleet.transcript("fleet_shared", {"middle": (middle.enter(), middle.environment)}, ONE=one, TWO=two, ID=id_of(1))
    kill(middle.holder)


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
    def told():
        return re.findall(r"status: (\d+) lines", open(gatherer.log).read())

    before = len(told())
    gatherer.send_signal(signal.SIGUSR1)
    wait_until(lambda: len(told()) > before)
    return int(told()[-1])


def spool_is_sent():
    """Into a database, from files that grow, beside others that are none of a spool."""
    a, d, e = (line_of(300000 + number) for number in range(3))
    spool = make_spool("spool1", _100=a + "\n" + "x" * 70000 + "\n", _1000=d[:400], _begun=e)
    os.mkfifo(spool + "/1.json")
    os.mkdir(spool + "/2.json")
    os.symlink("100.json", spool + "/3.json")
    others = ["4x.json", ".json", "5.jsonl", "6" * 31 + ".json"]
    for name in others:
        os.link(spool + "/begun.json", f"{spool}/{name}")
    others += ["1.json", "2.json", "3.json", "begun.json"]
    gatherer = start_gatherer("--listen=127.0.0.1:2640", "--database=host=127.0.0.1 dbname=zelk user=zelk_writer", port=2640, name="sent")

    def start_forward():
        with open(fleet.folder + "/sent-forward.log", "a") as output:
            return fleet.start("zelk-forward", "--spool=" + spool, f"--state={fleet.folder}/taken", "127.0.0.1:2640", output=output)

    def taken():
        return [rows(f"key = '{id_of(300000 + number)}'") for number in range(3)]

    forward = start_forward()
    expect("what is whole comes, and nothing else", (wait_until(lambda: taken() == [1, 0, 0]), query(
        f"SELECT length(line), split_part(place, ':', 1) FROM zelk_rejected WHERE host = '{socket.gethostname()}'")), (True, "64512|100.json"))
    quick = [1, 30, 10, 3, 30000, 1]
    expect("within a minute all of them notice that another machine has vanished", [wait_until(lambda: fleet.sockets_of(each) == [quick] * count)
                                                                                     for each, count in ((forward, 1), (gatherer, 3))], [True, True])
    expect("files are deleted when the middle has them, but for the newest", wait_until(
        lambda: sorted(os.listdir(spool)) == sorted(["1000.json", *others])), True)
    with open(spool + "/1000.json", "a") as file:
        file.write(d[400:] + "\n")
    expect("the rest of a line is waited for", wait_until(lambda: taken() == [1, 1, 0]), True)
    forward.terminate()
    expect("what sends ends with 0", forward.wait(), 0)
    lines_taken(gatherer)
    expect("what has been taken waits no more", re.findall(r"(\d+) lines \((\d+) KiB\) wait", open(gatherer.log).read())[-1], ("0", "0"))
    forward = start_forward()
    with open(spool + "/1000.json", "a") as file:
        file.write(e + "\n")
    expect("and it goes on where it was", (wait_until(lambda: taken() == [1, 1, 1]), lines_taken(gatherer)), (True, 4))
    kill(forward)
    kill(gatherer)


def any_spool(chance):
    """Files of a spool with lines of any size, the first and the torn ones of zelk-spool, and of a hand of one's own."""
    def any_line():
        return chance.choice([b"", b"#", b"x#", b"#x", b"x", b"{}", bytes(chance.randrange(32, 127) for _ in range(chance.randrange(90))),
                              b"y" * chance.choice([64511, 64512, 64513, 65535, 65536, 65537, 200000]), b"z" * 64512 + b"#", b"z" * 64511 + b"#z"])

    names = {str(chance.randrange(10 ** chance.choice([1, 9, 9, 30]))) for _ in range(4)}
    return {name: b"".join(any_line() + b"\n" for _ in range(chance.randrange(1, 30))) + chance.choice([b"", b"torn", b"t" * 70000]) for name in names}


def forwarded_wrongly(seed):
    """Has a spool be sent to a middle that goes away now and then, from a state of any kind. Returns what is not sent as it is to be."""
    chance = random.Random(seed)
    files = any_spool(chance)
    spool, state, host = f"{fleet.folder}/any{seed}", f"{fleet.folder}/any{seed}.taken", socket.gethostname().encode()
    os.mkdir(spool)
    for name, content in files.items():
        with open(f"{spool}/{name}.json", "wb") as file:
            file.write(content)
    name, newest = min(files, key=int), max(files, key=int)
    size = len(files[name])
    whole = files[name].rfind(b"\n") + 1
    noted, offset = chance.choice([("", 0), ("x", 0), (f"{name}.json", 0), (f"{name}.json -1\n", 0), (f"{name}.json {whole}x\n", 0), (f"{name}.json \n", 0),
                                   (f"{name}.json {size + 1}\n", 0), (f"{name}.json {size}\n", size), (f"{name}.json {whole}\n", whole), (f"{name}.jso 9\n", 0)])
    with open(state, "w") as file:
        file.write(noted)
    wanted = list(model_of.sent(files, name, offset))
    wrong, taken, forward = [], 0, None
    with socket.create_server(("127.0.0.1", 0)) as middle:
        middle.settimeout(20)
        while taken < len(wanted) and not wrong:
            if forward is None or chance.randrange(2):
                if forward:
                    forward.terminate()
                    forward.wait()
                forward = fleet.start("zelk-forward", "--spool=" + spool, "--state=" + state, "127.0.0.1:%d" % middle.getsockname()[1])
            connection, _ = middle.accept()
            connection.settimeout(20)
            frames = fleet.frames_of(connection)
            if next(frames) != (1, "open", b"relp_version=0\nrelp_software=zelk-forward\ncommands=syslog"):
                wrong.append("open")
            connection.sendall(b"1 rsp 6 200 OK\n")
            for number in range(2, 2 + chance.randrange(1, len(wanted) - taken + 1)):
                file, at, line = wanted[taken]
                frame = next(frames)
                if frame != (number, "syslog", b"<134>1 - %s zelk %s.json:%d - - %s" % (host, file.encode(), at, line)):
                    wrong.append((frame[:2], frame[2][:100], file, at))
                connection.sendall(b"%d rsp 6 200 OK\n" % number)
                taken += 1
            connection.shutdown(socket.SHUT_WR)
            for _ in frames:
                pass
            connection.close()
    if forward:
        forward.terminate()
        if forward.wait() != 0 or os.listdir(spool) != [newest + ".json"]:
            wrong.append((forward.returncode, os.listdir(spool), newest))
        if open(state).read() != f"{newest}.json {files[newest].rfind(bytes(chr(10), 'ascii')) + 1}\n":
            wrong.append((open(state).read(), newest))
    return [(seed, noted, each) for each in wrong[:3]]


def spools_are_sent():
    """Spools of any kind are sent as a second reading of their files says."""
    seeds = [int.from_bytes(os.urandom(4), "big") for _ in range(24)]
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        expect("each line is sent in its order, from its place, once more what had no answer", [wrong for found in pool.map(forwarded_wrongly, seeds)
                                                                                                 for wrong in found], [])


def lines_under_way():
    """A thousand of them wait for their answers at most, and come by the next connection when theirs is lost."""
    state = fleet.folder + "/window.taken"
    with open("/proc/sys/net/ipv4/tcp_wmem", "r+") as room:
        usual = room.read()
        room.seek(0)
        room.write("4096 16384 65536")  # so that some of them wait for room at first
    with socket.create_server(("127.0.0.1", 0)) as middle:
        forward = fleet.start("zelk-forward", "--spool=" + make_spool("window", _1=("x" * 500 + "\n") * 1100), "--state=" + state,
                              "127.0.0.1:%d" % middle.getsockname()[1])
        for count in (1, 1000):
            connection, _ = middle.accept()
            connection.settimeout(20)
            frames = fleet.frames_of(connection)
            next(frames)
            connection.sendall(b"1 rsp 6 200 OK\n")
            numbers = [next(frames)[0] for _ in range(count)]
            if count == 1:
                connection.close()
        is_more = select.select([connection], [], [], 0.5)[0] != []
        connection.sendall(b"2 rsp 6 200 OK\n")
        expect("a line more is sent for each that is answered", (numbers[-1], is_more, next(frames)[0]), (1001, False, 1002))
        forward.terminate()
        connection.sendall(b"3 rsp 6 200 OK\n")
        expect("when it is to end answers still count, nothing more is sent, and those that do not come are not waited for", (
            list(frames), forward.wait(), open(state).read()), ([], 0, "1.json 1002\n"))
    with open(room.name, "w") as room:
        room.write(usual)


def answer_badly(kind, number, reply, reason):
    """Answers the first line of what sends, or of a relay, by that, case 2 twice; then, unless it was taken by that, as it should be. Returns what is wrong."""
    times = 2 if number == 2 else 1
    line = line_of(310000)
    state = f"{fleet.folder}/hostile{number}.taken"
    log = f"{fleet.folder}/hostile-{kind}{number}.log"
    with socket.create_server(("127.0.0.1", 0)) as middle:
        middle.settimeout(20)
        address = "127.0.0.1:%d" % middle.getsockname()[1]
        if kind == "forward":
            with open(log, "w") as output:
                sender = fleet.start("zelk-forward", "--spool=" + make_spool(f"hostile{number}", _1=f"{line}\n"), "--state=" + state, address, output=output)
        else:
            sender = start_gatherer(f"--listen=127.0.0.1:{2700 + number}", "--relay=" + address, port=2700 + number, name=f"hostile-relay{number}")
            node = Conversation(2700 + number)
            node.tell([line])
        came, held = [], set()
        is_taken = is_noted = False
        while not is_taken:
            taken, _ = middle.accept()
            with taken:
                taken.settimeout(20)
                frames = fleet.frames_of(taken)
                came.append(next(frames))
                taken.sendall(b"1 rsp 6 200 OK\n")
                came.append(next(frames))
                held.add(len(os.listdir(f"/proc/{sender.pid}/fd")))
                answer = reply if len(came) <= 2 * times else b"2 rsp 6 200 OK\n"
                taken.sendall(answer)
                is_taken = answer.startswith(b"2 rsp 6 ")
                if is_taken and kind == "relay":
                    is_noted = node.wait() is None
                elif is_taken:
                    is_noted = wait_until(lambda: os.path.exists(state) and open(state).read() == f"1.json {len(line) + 1}\n")
            wait_until(lambda: open(log).read().count(reason) == min(len(came) // 2, times))
    said = [told.rpartition(": ")[2] for told in open(log).read().splitlines() if "listens" not in told]
    wanted = (["connected", reason] * times + ["connected"])[:len(came)]
    host, software = ("node9", "zelk-gather") if kind == "relay" else (socket.gethostname(), "zelk-forward")
    told = [(1, "open", f"relp_version=0\nrelp_software={software}\ncommands=syslog".encode()), (2, "syslog", f"<134>1 - {host} zelk 1.json:0 - - {line}".encode())]
    is_right = said[:len(wanted)] == wanted and sender.poll() is None and came == told * (len(came) // 2)
    kill(sender)
    return None if is_right and is_noted and len(held) == 1 else (kind, reply[:30], said, came, is_noted, held)


def hostile_middles():
    """Whatever the other side answers, what sends and a relay live, say why they try again, and take nothing for sent."""
    cases = [(kind, number, reply, reason) for kind in ("forward", "relay") for number, (reply, reason) in enumerate([
        (b"\0" * 100, "no number"), (b"2 rsp 1000000000 x", "no length"), (b"3 rsp 6 200 OK\n", "an answer that is none"),
        (b"1 rsp 6 200 OK\n", "an answer that is none"), (b"2 rsp 9 500 error\n", "it does not take what it is sent"),
        (b"0 serverclose 0\n", "it goes out of service"), (b"2 ack 6 200 OK\n", "an answer that is none"), (b"9" * 100000, "no number"),
        (b"2 rsp 6 200 OK\n3 rsp 6 200 OK\n", "an answer to nothing"), (b"", "it has closed the connection")])]
    with concurrent.futures.ThreadPoolExecutor(len(cases)) as pool:
        expect("after answers that are none all goes on", [wrong for wrong in pool.map(lambda case: answer_badly(*case), cases) if wrong], [])


# ---- A fleet ------------------------------------------------------------------------------------------------------------

def record_many(node, stack, count):
    """Starts to record incidents that fill a stack soon."""
    return node.start_recording(stack, count, "-d", "slot " + "0" * 80)


def three_nodes(gatherer):
    start_gatherer("--listen=*:2651", "--relay=127.0.0.1:2514", port=2651, name="relay")
    nodes, begin = [Node(1), Node(2, port=2651), Node(3)], time.monotonic()
    for node in nodes:
        node.start_rsyslog() if node == nodes[2] else node.start_forward()
        node.start_spool()
    # What no frame has room for, in a spool of somebody's own making.
    for node in nodes[1:]:
        node.run("sh", "-c", """cd /var/lib/zelk/spool; { printf '#%-1022s\\n' 1; head -c 200000 /dev/zero | tr '\\0' x; echo; } >made
            mv made 1.json""")
    first = nodes[0].record("chain", "Fan 3 of enclosure 1 stands still.")
    second = nodes[1].record("chain", "-c", first, "Disk disk\03307 is too warm.")
    nodes[2].record("chain", "-c", second, "Backup of archive stopped.")

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
    recorded = [(node.name, *line.split()) for node, recorder in recorders for line in recorder.communicate()[0].splitlines()]

    # More than a stack holds while nobody reads it.
    kill(nodes[2].spool)
    before = query("SELECT stack, gaps FROM zelk_gaps WHERE host = 'node3' AND stack LIKE 'busy%'").splitlines()
    record_many(nodes[2], "busy", 400).communicate()
    nodes[2].start_spool()

    # Nodes wait up to ten seconds before it tries again. What a stack has lost comes to a gap.
    wait_until(lambda: not fleet.missing(recorded), limit=25, pause=0.5)
    expect(f"of {len(recorded)} incidents none is lost but what a gap tells of", fleet.missing_untold(recorded), [])
    expect("nearly all of them are there", len(fleet.missing(recorded)) < len(recorded) * 0.1, True)

    def has_gaps():
        return len(set(query("SELECT stack, gaps FROM zelk_gaps WHERE host = 'node3' AND stack LIKE 'busy%'").splitlines())
                   - set(before)) == 4

    expect("stacks that were not read for a while have gaps, each one more", wait_until(has_gaps, limit=60), True)
    expect("no incident is there twice", query("SELECT count(*) - count(DISTINCT key) FROM zelk_incident"), "0")
    expect("a torn line is passed over", reason_of("node1"), "")
    with open(f"/proc/{nodes[0].forward.pid}/stat") as file:
        used = sum(map(int, file.read().rpartition(")")[2].split()[11:13])) / os.sysconf("SC_CLK_TCK")
    expect(f"what sends sleeps when it has nothing to do, {used} s of use", used < (time.monotonic() - begin) / 10, True)
    expect("a line that is too long for a frame is rejected, and nothing waits behind it", ["not a line of zkexport" in reason_of(host) for host in ("node2", "node3")], [True, True])
    return gatherer


def main():
    # The machine does not crash here, so nothing has to be synchronised with the disk.
    fleet.make_cluster("fsync = off", "listen_addresses = '127.0.0.1'")
    with open(fleet.folder + "/hosts", "w") as hosts:
        hosts.write("127.0.0.1 localhost middle.example two.example\n127.0.0.2 two.example\n")
    run("mount", "--bind", hosts.name, "/etc/hosts")
    fleet.make_database("zelk")
    gatherer = start_gatherer("--listen=*:2514", f"--database={fleet.conninfo()}")
    patient = concurrent.futures.ThreadPoolExecutor().submit(patience)
    silent = [socket.create_connection(("127.0.0.1", 2514)) for _ in range(600)]
    off = vanish(gatherer)
    hostile_frames(gatherer)  # before what is said of the silent ones fills the log
    frames_are_answered()
    messages_say_where_they_come_from()
    listens(gatherer)
    tells_how_it_stands()
    fleet.transcript("fleet_commands")
    lines_that_are_none()
    one_judge()
    one_row_a_key()
    nameless()
    gaps()
    questions()
    many_effects()
    checks()
    pages()
    setting_up()
    setting_up_shared()
    refused_by_the_database()
    upgraded()
    who_may()
    neighbours()
    half_open(gatherer, silent)
    crowd()
    away()
    vanished(off, gatherer)
    by_tls()
    several_addresses()
    several_databases()
    fleet.transcript("fleet_logs")
    killed_gatherers()
    failover()
    spool_is_sent()
    spools_are_sent()
    lines_under_way()
    fleet.transcript("fleet_spool")
    hostile_middles()
    gatherer = three_nodes(gatherer)
    months()
    was_patient(patient.result())
    gatherer.terminate()
    expect("and in the end it ends", gatherer.wait(), 0)
    fleet.finish()


fleet.enter(os.path.abspath(__file__))
main()
