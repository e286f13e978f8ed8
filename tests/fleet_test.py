# SPDX-License-Identifier: MIT
"""Tries what is in fleet/ as a whole; script/test-fleet runs it. Each story below is one that must not end otherwise, whatever is
killed meanwhile and whoever sends what."""
import base64
import concurrent.futures
import datetime
import glob
import html
import itertools
import json
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
import fleet_model as model_of
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
        "31st of June": line.replace('"time":"2026-11-25', '"time":"2026-06-31'),
        "second 60": line.replace(':30Z"', ':60Z"'),
        "another time than its Error ID's": line.replace('.000997Z', '.000998Z'),
        "a long Error ID": line.replace(id_of(1), id_of(1) + "."),
        "two of one name": line.replace('"details":', '"details":"","details":'),
        "one is missing": line.replace('"cause":null,', ""),
        "one is null": line.replace('"name":"diskmon"', '"name":null'),
        "another order": line.replace('"id":4711,"parent":1', '"parent":1,"id":4711'),
        "blanks": line.replace(",", ", "),
        "carriage return": line + "\r",
        "an argument of another type": line.replace('"type":"int"', '"type":"pointer"'),
        "an address with too many digits": line.replace('"type":"string","value":"disk07"', '"type":"pointer","value":"0x' + "1" * 17 + '"'),
        "a line that looks like bytes": "\\x" + line.encode().hex(),
        "a node that is none": line.replace('"node":"192.0.2.2"', '"node":"192.0.2"'),
        "a year that is none": line.replace('"time":"2026', '"time":"20026'),
        "bytes of another text": line.replace('"details"', '"description_base64":"/w==","details"'),
        "bytes that are text": line.replace('"details"', '"description_base64":"YQ==","details"'),
        "a gap that is none": '{"stack":"disks","gap":1}',
        "an error of another name": '{"stack":"disks","error":{"code":-26,"name":"ZELK_LOCK","reason":"x"}}',
        "DEL as it stands": line.replace("slot 7", "slot \x7f"),
        "a C1 control as it stands": line.replace("slot 7", "slot \u009b"),
        "a name of another letter": line.replace('"id_time"', '"id.time"'),
        "a bracket elsewhere": line.replace('"id":4711,', '"id":4711},'),
        "a second number": line.replace('"offset":24,', '"offset":24,:5,'),
        "an argument without brackets": line.replace('{"type":"int","value":3}', 'i3}'),
    }.items():
        put([bad], host="bad", place=place.replace(" ", "_").replace(",", "").replace("'", ""))
    expect("all of them are kept, with the reason", query("SELECT count(*) FROM zelk_rejected WHERE host = 'bad'"), "33")
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
            line_of(1000 + number).replace("slot 7", "\\u001B[31m\\u000E\\u001F\\u007f\\u009f\\b\\f \u00e9"),
            line_of(1000 + number).replace('"1.7"', '"a\ufffd","version_base64":"Yf8="'),
            line_of(1000 + number).replace('"disk07"}', '"a\ufffd","value_base64":"Yf8="}'),
            line_of(1000 + number).replace('","details"', '","cut":true,"details"').replace('"cut"', chance.choice(['"cut"', 'cut'])),
            line_of(1000 + number).replace('"value":0.5', '"value":' + any_double(chance)),
            line_of(1000 + number).replace('"type":"int","value":3', any_argument(chance)),
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


def one_row_a_key():
    line = line_of(7000)
    put([line, line, line.replace("7:09:30Z", "7:09:32Z")], host="once")
    put([line.replace("7:09:30Z", "7:09:31Z")], host="once", place="later")
    put([line.replace('"stack":"disks","offset":24', '"stack":"copy of disks","offset":600').replace("0.5.", "1/2.")], host="once", place="copy")
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
    query("DELETE FROM zelk_incident_other WHERE host <> 'months'")
    for age in (199, 201):
        query(f"INSERT INTO zelk_notice VALUES (now() - interval '{age} days', 'aged', '{age}', 'gap', '', '{{}}');"
              f"INSERT INTO zelk_rejected VALUES (now() - interval '{age} days', 'aged', '{age}', '', '')")
        put([line_of(10 + age, int(time.time()) - age * 86400)], host="aged")
    expect("old months go as a whole", query("SELECT zelk_drop_before(interval '200 days')"), "1")
    expect("and all else that is old", (rows("host = 'months'"), query(
        "SELECT string_agg(place, ' ') FROM (SELECT host, place FROM zelk_notice UNION ALL SELECT host, place FROM zelk_rejected "
        "UNION ALL SELECT host, (now()::date - time::date)::text FROM zelk_incident) each WHERE host = 'aged'")), (0, "199 199 199"))


def refused_by_the_database():
    """What the database itself refuses of a line is found, and kept as bytes; the others are rows."""
    fleet.make_database("refusing")
    bad = [line_of(number) for number in (17, 40)]
    query(f"""CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN
        IF NEW.key IN ('{id_of(17)}', '{id_of(40)}') THEN RAISE data_exception USING MESSAGE = 'not that one'; END IF; RETURN NEW; END $$;
        CREATE TRIGGER refuse BEFORE INSERT ON zelk_incident FOR EACH ROW EXECUTE FUNCTION refuse()""", "refusing")
    gatherer = start_gatherer("--listen=127.0.0.1:2621", f"--database={fleet.conninfo('refusing')}", port=2621, name="refusing")
    put([line_of(number) for number in range(60)], 2621)
    expect("a line that the database refuses holds up no other", (rows(database="refusing"), query(
        "SELECT convert_from(line, 'UTF8') FROM zelk_rejected ORDER BY place", "refusing").splitlines()), (58, bad))
    expect("the log says what it refused", ": 22000 not that one" in open(gatherer.log).read(), True)
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
        INSERT INTO zelk_incident VALUES (to_timestamp({fleet.SECOND}), '2026-11-25 10:00Z', '{id_of(4)}', '{id_of(3)}', 'a', $${line_of(4, cause=id_of(3))}$$),
            (to_timestamp({fleet.SECOND}), '2026-11-25 11:00Z', '#{"0a" * 32}', NULL, 'b', $${nameless}$$);
        INSERT INTO zelk_notice VALUES ('2026-11-25 12:00Z', 'a', '1:2', 'gap', 's', '{{"stack":"s","gap":true}}');
        INSERT INTO zelk_rejected VALUES ('2026-11-25 13:00Z', 'a', '1:3', 'why', 'no é')""", "old")

    def all_that_is_there():
        return query("SELECT extract(epoch FROM time), extract(hour FROM received AT TIME ZONE 'UTC'), key, cause, host, bucket = zelk_bucket(key) FROM zelk_incident "
                     "ORDER BY received; SELECT received, place, kind FROM zelk_notice; SELECT received, reason, line FROM zelk_rejected", "old").splitlines()

    for _ in range(2):
        run("psql", "-Xqf", fleet.FLEET + "/schema.sql", "old")
        expect("what version 1.1 kept is there", all_that_is_there(), [
            f"{fleet.SECOND}.003988|10|{id_of(4)}|{id_of(3)}|a|t", f"{fleet.SECOND}.000000|11|#{fleet.SECOND}-{'0a' * 32}||b|t",
            "2026-11-25 12:00:00+00|1:2|gap", "2026-11-25 13:00:00+00|why|\\x" + "no é".encode().hex()])
    query(f"SELECT zelk_put('a', '', $${line_of(4, cause=id_of(3))}$$)", "old")
    expect("and is known when it comes again", rows(database="old"), 2)


def who_may():
    for text in ("SELECT count(*) FROM zelk_incident", "CREATE TEMPORARY TABLE mine (a int)"):
        answer = subprocess.run(["psql", "-XqAtU", "zelk_writer", "-c", text, "zelk"], capture_output=True, text=True)
        expect(f"who writes may not: {text}", "permission denied" in answer.stderr, True)
    expect("who writes may call two functions, who reads those that change nothing", [query(
        f"SELECT string_agg(DISTINCT {what}, ' ') FROM pg_proc WHERE proname LIKE 'zelk\\_%' AND has_function_privilege('{role}', oid, 'EXECUTE')")
        for role, what in (("zelk_writer", "proname"), ("zelk_reader", "provolatile::text"))], ["zelk_put zelk_put_many", "i s"])
    privileges = ",".join(f"CASE WHEN has_table_privilege(role, oid, '{each}') THEN '{each}' END" for each in ("SELECT", "INSERT", "UPDATE", "DELETE", "TRUNCATE"))
    expect("who writes has no table, who reads may look at each", query(
        f"SELECT DISTINCT role, relkind, concat_ws(' ', {privileges}) FROM pg_class, unnest(ARRAY['zelk_writer', 'zelk_reader']) role "
        "WHERE relname LIKE 'zelk\\_%' AND relkind IN ('r', 'p', 'v') AND NOT relispartition ORDER BY 1, 2").splitlines(), [
            "zelk_reader|p|SELECT", "zelk_reader|r|SELECT", "zelk_reader|v|SELECT", "zelk_writer|p|", "zelk_writer|r|", "zelk_writer|v|"])
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
    causes = [chance.choice([None, chance.choice(ids[:number + 1]), chance.choice(ids[:number + 1]), chance.choice(ids), id_of(999999), "x"])
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
    rows, wrong = {}, []
    for offset, key, cause, time, host in ask("SELECT incident->>'offset', key, cause, extract(epoch FROM time), host FROM zelk_incident"):
        line = told.pop(int(offset))
        at = datetime.datetime.strptime(line.get("id_time", line["time"][:-1] + ".0Z"), "%Y-%m-%dT%H:%M:%S.%fZ").replace(tzinfo=datetime.timezone.utc)
        rows[key] = (cause or None, at)
        if (cause or None) != line["cause"] or datetime.datetime.fromtimestamp(0, datetime.timezone.utc) + datetime.timedelta(microseconds=int(
                float(time) * 1e6 + 0.5)) != at or key != (line["id"] or key) or host != f"node{int(offset) % 3}":
            wrong.append((key, cause, time, host))
    wrong += list(told)

    keys = [*list(rows)[:most], id_of(999999), "x", "nobody"]
    asked = "unnest(ARRAY[" + ",".join(f"'{key}'" for key in keys) + "]) id"
    for name, model in (("causes", model_of.causes), ("effects", model_of.effects), ("chain", model_of.chain)):
        answers = {key: [] for key in keys}
        for key, depth, found, at, host, cause, incident in ask(f"SELECT id, depth, key, extract(epoch FROM at), host, step.cause, incident->>'offset' "
                                                                f"FROM {asked}, LATERAL zelk_{name}(id) WITH ORDINALITY step ORDER BY id, ordinality"):
            answers[key].append((int(depth), found))
            if found in rows and (cause or None, bool(at), bool(host), bool(incident)) != (rows[found][0], True, True, True):
                wrong.append((name, key, found, at, host, cause))
        wrong += [(name, key, answers[key]) for key in keys if answers[key] != model(rows, key)]
    for _, since in sorted(rows.values(), key=lambda row: row[1])[::5]:
        answer = ask(f"SELECT key, effects, at IS NOT NULL AND host IS NOT NULL AND incident IS NOT NULL, at FROM zelk_first_causes('{since}')")
        if {key: (int(effects), has_time == "t") for key, effects, has_time, _ in answer} != {
                key: (effects, time is not None) for key, (effects, time) in model_of.first_causes(rows, since).items()}:
            wrong.append(("first causes", since, answer))
        if answer != sorted(answer, key=lambda row: (-int(row[1]), row[3] or "~", answer.index(row))):
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
    expect("plain columns", query("SELECT time, host, node, stack, process, pid, product, file, line, description, details, received > now() - interval "
                                  f"'1 hour' FROM zelk_plain WHERE key = '{json.loads(lines[0])['id']}'", "whole").split("|"), [
        query(f"SELECT zelk_time('{json.loads(lines[0])['id']}')"), "node0", "192.0.2.2", "disks", "diskmon", "4711", "stn.node", "dm_scan.c", "412",
        "Disk disk07: 3 unreadable sectors, the first at 8589934712, 0.5.", "slot 7 of enclosure 1\nretries    16", "t"])


def checks():
    """What zelk-check says to monitoring. Ages are intervals of PostgreSQL."""
    fleet.make_database("checked")

    def check(*options, nodes=(), gaps=(), rejected=(), incidents=(), **variables):
        """What it says when nodes were added, and lines came, so long ago; an incident has a host, its age, and how long it took."""
        query("TRUNCATE zelk_node, zelk_notice, zelk_rejected, zelk_incident;"
              "INSERT INTO zelk_notice SELECT now(), 'a', '', 'error', 'b', '{}';" + "".join(
                  [f"INSERT INTO zelk_node VALUES ('{host}', now() - interval '{age}');" for host, age in nodes]
                  + [f"INSERT INTO zelk_notice VALUES (now() - interval '{age}', 'a', '{age}', 'gap', 'b', '{{}}');" for age in gaps]
                  + [f"INSERT INTO zelk_rejected VALUES (now() - interval '{age}', 'a', '{age}', '', '');" for age in rejected]
                  + ["INSERT INTO zelk_incident SELECT 0, time, time + interval '%s', '%s', NULL, '%s', '{}' FROM (SELECT now() - interval '%s') each (time);"
                     % (taken, age, host, age) for host, age, taken in incidents]), "checked")
        answer = subprocess.run([fleet.FLEET + "/zelk-check", *options], capture_output=True, text=True,
                                env=fleet.environment | {"PGUSER": "zelk_reader", "PGDATABASE": "checked"} | variables)
        return answer.returncode, answer.stdout.removeprefix("ZELK ").strip()

    def figures(gaps=0, rejected=0, silent=0, nodes=0, delay=0, behind=60):
        return f" | gaps={gaps};0;;0 rejected={rejected};0;;0 silent={silent};0;;0 nodes={nodes};;;0 delay={delay}s;{behind};{10 * behind};0"

    expect("no node is no trouble", check(), (0, "OK - the incidents of 0 nodes arrive" + figures()))
    nodes = [("gone", "2 days"), ("here", "25 hours"), ("new", "23 hours")]
    expect("a node from which nothing came for a day is silent, a new one is not yet", check(nodes=nodes, incidents=[
        ("here", "23 hours", "1 s"), ("gone", "25 hours", "1 s")]), (1, "WARNING - 1 of 3 nodes silent for 1 day" + figures(silent=1, nodes=3)))
    expect("after how long may be said", check("--silent=3 days", nodes=nodes), (0, "OK - the incidents of 3 nodes arrive" + figures(nodes=3)))
    expect("all of them are critical", check(nodes=nodes[:2]), (2, "CRITICAL - all 2 nodes are silent" + figures(silent=2, nodes=2)))
    ages = {"gaps": ["1 hour", "23 hours", "25 hours"], "rejected": ["2 hours", "25 hours"]}
    expect("gaps and rejected lines of a day are warnings", check(**ages), (1, "WARNING - 2 gaps in 1 day, 1 lines rejected in 1 day" + figures(2, 1)))
    expect("or of another time, which is not that of silence", check("--since=90 minutes", nodes=nodes[1:2], incidents=[
        ("here", "23 hours", "1 s")], **ages), (1, "WARNING - 1 gaps in 90 minutes" + figures(1, nodes=1)))
    for taken, wanted, options in [(60, (0, "OK"), []), (61, (1, "WARNING"), []), (600, (1, "WARNING"), []), (601, (2, "CRITICAL"), []),
                                   (5, (0, "OK"), ["--behind=5"]), (6, (1, "WARNING"), ["--behind=5"])]:
        status, said = check(*options, incidents=[("a", "30 s", f"{taken - 0.5} s"), ("b", "20 minutes", "1 s")])
        text = "the incidents of 0 nodes arrive" if status == 0 else f"the intake is {taken} s behind"
        if (status, said) != (wanted[0], f"{wanted[1]} - {text}" + figures(delay=taken, behind=5 if options else 60)):
            expect(f"an intake that is {taken} s late", (status, said), wanted)
    expect("what was old when it came does not say that the intake is late", check(incidents=[("a", "61 minutes", "1 hour"), ("b", "20 minutes", "9 minutes")]),
           (0, "OK - the incidents of 0 nodes arrive" + figures()))
    expect("the worst decides", check(nodes=nodes[:1], gaps=["1 s"], rejected=["1 s"], incidents=[("a", "1 s", "100 s")]), (
        2, "CRITICAL - the intake is 100 s behind, all 1 nodes are silent, 1 gaps in 1 day, 1 lines rejected in 1 day" + figures(1, 1, 1, 1, 100)))
    expect("no answer is critical", check(PGHOST="/nowhere")[0], 2)
    expect("what cannot be asked is unknown", check(PGDATABASE="nowhere")[0], 3)


def pages():
    """What zelk-page writes, word for word. The database and the machine have other zones."""
    fleet.make_database("paged")
    query("ALTER DATABASE paged SET timezone = 'Asia/Kolkata'")
    day = (int(time.time()) - 85000) // 60 * 60

    def line(number, cause=None, product="stn.node", stack="disks"):
        return line_of(number, day + number, cause).replace('"product":"stn.node"', '"product":' + json.dumps(product)).replace('"disks"', f'"{stack}"')

    keys = [id_of(number, day + number) for number in range(7)]
    evil = line(1).replace("8589934712, 0.5.", "<b>&amp;\\u001B</b>").replace('"name":"diskmon"', '"name":"<s>"')
    nameless = re.sub('"id":"[^"]*"', '"id":null', re.sub(',"id_time":.*?"node":"[^"]*"', "", line(0)))
    names = {}
    for number, key in enumerate(keys):
        at = time.strftime("%Y-%m-%d %H:%M:%SZ", time.gmtime(day + number))
        local = time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(day + number - 18000))
        names |= {f"ID{number}": key, f"FILE{number}": key.replace("/", "_"), f"AT{number}": at, f"ISO{number}": at.replace(" ", "T"), f"LOCAL{number}": local}
    told = [("here", evil), ("there", line(2, keys[1], "a<\\")), ("there", line(3, keys[2], "")), ("there", line(4, "nobody/#")), ("here", line(5)),
            ("node", line(6, stack="zelk-alive")), ("node", line_of(99, day - 2500)), ("old", nameless), ("<i>", '{"stack":"<u>","gap":true}'),
            ("here", "<s>no line"), ("here", "none")]
    variables = {"PGUSER": "zelk_reader", "PGDATABASE": "paged", "TZ": "EST5"}
    fleet.transcript("fleet_page_empty", {"": ([], variables)})
    for host, each in told:
        query(f"SELECT zelk_put('{host}', '{len(each)}', $Q${each}$Q$)", "paged")
    query("UPDATE zelk_notice SET received = to_timestamp(0); UPDATE zelk_rejected SET received = to_timestamp(1e9 + length(line))", "paged")
    fleet.transcript("fleet_page", {"": ([], variables)}, **names)

    # More than there is room for.
    fleet.make_database("crowded")
    crowd = [line_of(number, day, id_of(0, day) if 0 < number < 2100 else None).replace("stn.node", f"p{number % 210}") for number in range(2200)]
    put_into("crowded", crowd + ['{"stack":"s","gap":true}', "none"] * 210, [f"h{number % 210}" for number in range(2200)] + [f"h{number // 2}" for number in range(420)])
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
            (opening + b"2 rsp 6 200 OK\n", "a command that is unknown here"), (b"1 " + b"o" * 100000, "a command that is too long"),
            (b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", "no number")):
        before = os.path.getsize(gatherer.log)

        def is_ended_for_that():
            conversation = Conversation(is_open=False)
            conversation.socket.sendall(frame)
            try:
                while conversation.socket.recv(4096):
                    pass
            except ConnectionResetError:
                pass
            except socket.timeout:
                return False
            conversation.close()
            return f"a frame that is none: {reason}" in open(gatherer.log).read()[before:]

        if not wait_until(is_ended_for_that):  # not more than ten reasons a second are said
            expect(f"a frame that is none ends its connection: {frame[:40]!r}", open(gatherer.log).read()[before:], reason)
    expect("nothing that a node sends ends the gatherer", gatherer.poll(), None)


def frames_are_answered():
    answer = b"200 OK\nrelp_version=0\nrelp_software=zelk-gather\ncommands=syslog"
    line = b"<134>1 - node9 zelk answered:1 - - " + line_of(8000).encode()
    conversation = Conversation(is_open=False)
    conversation.socket.sendall(b"1 open 3 any\n2 syslog %d %s\n3 syslog 0\n4 close 0 \n5 syslog 1 x\n" % (len(line), line))
    answers = b"".join(iter(lambda: conversation.socket.recv(4096), b""))
    expect("frames are answered in their order, and the last one ends the connection", answers,
           b"1 rsp %d %s\n2 rsp 6 200 OK\n3 rsp 6 200 OK\n4 rsp 0\n0 serverclose 0\n" % (len(answer), answer))


def messages_say_where_they_come_from():
    long_name = "h" * 255
    for number, (message, wanted) in enumerate([
            ("<134>1 - h-1.x:y_z zelk 7.json:9 - - text 1", "h-1.x:y_z|7.json:9|text 1"), ("<0>1 - - zelk - - - text 2", "||text 2"),
            ("<134>1 - a/b zelk p,q - - text 3", "||text 3"), (f"<1>1 - {long_name} zelk p - - text 4", f"{long_name}|p|text 4"),
            (f"<1>1 - {long_name}h zelk p - - text 5", "|p|text 5"), ("134>1 - h zelk p - - text 6", None), ("<134>2 - h zelk p - - text 7", None),
            ("<134>1 - h zelk p - x text 8", None), ("<134>1 - h zelk p  - text 9", None), ("text 10", None)]):
        conversation = Conversation()
        conversation.say("syslog", message.encode())
        conversation.wait()
        found = query(f"SELECT host, place, convert_from(line, 'UTF8') FROM zelk_rejected WHERE line LIKE convert_to('%{message[-6:]}', 'UTF8') "
                      "ORDER BY received DESC LIMIT 1")
        if found != (wanted or f"||{message}"):
            expect(f"what a message says: {message[:60]}", found, wanted or message)


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
    said = [re.sub(r"port \d+", "port", line) for line in open(gatherer.log).read().splitlines()]
    expect("the log hears of what it does", sorted(line.removeprefix("zelk-gather: ") for line in said if "status: 0 lines" not in line), [
        "127.0.0.1 port: a frame that is none: no number", "has read its certificates anew", "listens at 127.0.0.1:2670", "session 1: connected",
        "session 2: connected", "session 3: connected", "status: 3 lines in 3 commits; 0 connections, 3 since the start, 1 refused; 0 lines (0 KiB) wait, the oldest "
        "for 0.0 s; 0 of 3 sessions away"])


def neighbours():
    """A node that tells the worst there is does not hold up what another one tells after it."""
    # Deep, long, full of numbers and escapes, and such that are nearly right.
    worst = ['{"stack":"' + "\\u0001" * 10000 + '","gap":true}', line_of(1).replace("slot 7", "\\u009f" * 10000),
             line_of(2).replace('"value":0.5', '"value":' + ",".join(["1e+300"] * 9000)),
             '{"stack":"a","offset":' + "[" * 60000, "{" * 60000, line_of(3)[:-1] + ',"a":1' * 9000 + "}"]
    floods = [Conversation(host="flood") for _ in range(3)]
    for number, flood in enumerate(floods):
        flood.tell(worst * 10, place=f"f{number}")
    put([line_of(40000)], host="quiet")
    for flood in floods:
        flood.wait()
        flood.close()
    before, count = map(int, query("SELECT count(*) FILTER (WHERE received < (SELECT received FROM zelk_incident WHERE host = 'quiet')), count(*) "
                                   "FROM zelk_rejected WHERE host = 'flood'").split("|"))
    expect(f"of {count} lines that were told before a quiet node's {before} are taken before it, and not half of them", before < count / 2, True)


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

    expect("nobody else is let in", [is_refused(tls) for tls in (None, context(None), context("foreign"), context("nameless"))], [True] * 4)
    put([line_of(72100)], 2610, tls=context("plain"))
    expect("a certificate without DNS names has a common name", rows("host = 'plain.example'"), 1)
    astray = start_gatherer("--listen=127.0.0.1:2612", "--relay=localhost:2610", *fleet.tls_options("site", "authority"), port=2612, name="astray")
    expect("a gatherer that is named otherwise is told nothing", wait_until(lambda: "name in the certificate does not match" in open(astray.log).read()), True)
    kill(astray)

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


def several_databases():
    """Rows in two databases, and then in three: any of them can be asked, and takes any line."""
    for name in ("part1", "part2", "part3"):
        fleet.make_database(name)
    fleet.spread("part1", "part2")
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
    fleet.spread("part1", "part2", "part3")
    here = [int(query("SELECT count(*) FROM zelk_incident_here", name)) for name in ("part1", "part2", "part3")]
    expect(f"rows move when a database is added, {here}", (sum(here), min(here) > 80, rows(database="part3")), (404, True, 404))
    key = query("SELECT key FROM zelk_incident_here LIMIT 1", "part3")
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
        for part in ("etc", "work", "bin"):
            os.makedirs(f"{self.room}/{part}")
        for stub, does in STUBS.items():
            with open(f"{self.room}/bin/{stub}", "w") as file:
                file.write(f"#!/bin/sh\n{does}\n")
            os.chmod(f"{self.room}/bin/{stub}", 0o755)
        self.environment = {"PATH": f"{self.room}/bin:{fleet.FLEET}:" + os.environ["PATH"], "ROOM": self.room, "ZELK_SHARE": fleet.FLEET}
        self.holder = fleet.start("unshare", "--mount", "--uts", "sh", "-c", f"""
            mount -t overlay overlay -o lowerdir=/etc,upperdir={self.room}/etc,workdir={self.room}/work /etc && mount -t tmpfs none /var &&
            echo '127.0.0.1 localhost middle.example' >/etc/hosts && echo {name} >/proc/sys/kernel/hostname && touch {self.room}/ready && sleep infinity""")
        wait_until(lambda: os.path.exists(self.room + "/ready"))

    def enter(self, *command):
        return ["nsenter", "--target", str(self.holder.pid), "--mount", "--uts", *command]

    def start(self, *command, output=None, **variables):
        return fleet.start(*self.enter(*command), output=output, **(self.environment | variables))


def setting_up():
    """A middle and a node are set up by their commands, lines go from one to the other, and no more when the node is shut out."""
    middle, node = Sandbox("middle7"), Sandbox("node7")
    hosts = {"middle": (middle.enter(), middle.environment), "node": (node.enter(), node.environment)}
    fleet.make_database("set_up")
    fleet.transcript("fleet_set_up", hosts)

    def options(file, name):
        return re.search(name + "=(.*)", open(file).read())[1].split()

    gatherer = middle.start("zelk-gather", *options(middle.etc + "/gather.env", "ZELK_GATHER"), PGSERVICEFILE="/etc/zelk/zelk_writer.conf")
    wait_until(lambda: fleet.is_listening(2690))
    spool = make_spool("spool7", _1=line_of(8100) + "\n")
    with open(node.room + "/log", "w") as output:
        forward = node.start("zelk-forward", "--spool=" + spool, *options(node.etc + "/node.env", "ZELK_TLS"), "middle.example:2690", output=output)
    expect("lines go from one to the other, under the node's name", wait_until(lambda: rows("host = 'node7'", "set_up") == 1), True)
    forward.send_signal(signal.SIGHUP)
    expect("what sends connects anew by new certificates", wait_until(lambda: re.findall(": ((?:connect|is|it|The).*)", open(node.room + "/log").read()) == [
        "connected", "connects anew, by the certificates as they are now", "connected"]), True)
    fleet.transcript("fleet_shut_out", hosts)
    for process in (forward, gatherer, middle.holder, node.holder):
        kill(process)


def setting_up_shared():
    """A middle whose rows lie in two databases, of which it knows two hosts each."""
    middle = Sandbox("middle8")
    for name in ("half1", "half2"):
        fleet.make_database(name)
    put_into("half1", [line_of(number) for number in range(99)], ["node7"] * 99)
    one, two = (f"'--database=host=127.0.0.1,127.0.0.2 target_session_attrs=read-write user=postgres password=secret dbname={name}'"
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
    a, b, c, d, e = (line_of(300000 + number) for number in range(5))
    spool = make_spool("spool1", _99=c + "\n", _100=f"#100\n{a}\n{d[:300]}#\n" + "x" * 70000 + f"\n{b}\n", _1000=d[:400], _begun=e)
    os.mkfifo(spool + "/1.json")
    os.mkdir(spool + "/2.json")
    os.symlink("99.json", spool + "/3.json")
    others = ["1.json", "2.json", "3.json", "begun.json"]  # what is no file of the spool stays as it is
    gatherer = start_gatherer("--listen=127.0.0.1:2640", f"--database={fleet.conninfo()}", port=2640, name="sent")

    log = fleet.folder + "/sent-forward.log"

    def start_forward():
        with open(log, "a") as output:
            return fleet.start("zelk-forward", "--spool=" + spool, f"--state={fleet.folder}/taken", "127.0.0.1:2640", output=output)

    def keys():
        return query(f"SELECT string_agg(key, ' ' ORDER BY received) FROM zelk_incident WHERE key IN ({','.join(repr(id_of(300000 + number)) for number in range(5))})")

    forward = start_forward()
    first = [id_of(300000 + number) for number in (2, 0, 1)]
    expect("lines are sent in the order of files, those cut short are not, and those too long are cut", (wait_until(
        lambda: sorted(keys().split()) == sorted(first)), query(
            f"SELECT length(line), split_part(place, ':', 1) FROM zelk_rejected WHERE host = '{socket.gethostname()}'")),
        (True, "64512|100.json"))
    expect("files are deleted when the middle has them, but for the newest", wait_until(
        lambda: sorted(os.listdir(spool)) == sorted(["1000.json", *others])), True)
    with open(spool + "/1000.json", "a") as file:
        file.write(d[400:] + "\n")
    expect("the rest of a line is waited for", wait_until(lambda: id_of(300003) in keys()), True)
    forward.terminate()
    expect("what sends ends with 0", forward.wait(), 0)
    lines_taken(gatherer)
    expect("what has been taken waits no more", re.findall(r"(\d+) lines \((\d+) KiB\) wait", open(gatherer.log).read())[-1], ("0", "0"))
    forward = start_forward()
    wait_until(lambda: open(log).read().count("connected") == 2)  # and has looked at the file
    with open(spool + "/1000.json", "a") as file:
        file.write(e + "\n")
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


def answer_badly(kind, number, reply, reason):
    """Answers the first line of what sends, or of a relay, by that; then, unless it was taken by that, as it should be. Returns what is wrong."""
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
        came = []
        is_taken = False
        while not is_taken:
            taken, _ = middle.accept()
            with taken:
                taken.settimeout(20)
                taken.recv(1000)
                taken.sendall(b"1 rsp 6 200 OK\n")
                came.append(taken.recv(10000))
                answer = reply if len(came) == 1 else b"2 rsp 6 200 OK\n"
                taken.sendall(answer)
                is_taken = answer.startswith(b"2 rsp 6 ")
                if is_taken and kind == "relay":
                    node.wait()
                elif is_taken:
                    wait_until(lambda: os.path.exists(state) and open(state).read() == f"1.json {len(line) + 1}\n")
            wait_until(lambda: reason in open(log).read())
    said = [told.rpartition(": ")[2] for told in open(log).read().splitlines() if "listens" not in told]
    wanted = ["connected", reason, "connected"][:2 if len(came) == 1 else 3]
    is_right = said[:len(wanted)] == wanted and sender.poll() is None and all(each.endswith(b" - - " + line.encode() + b"\n") for each in came)
    kill(sender)
    return None if is_right else (kind, reply[:30], said, came)


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
    nodes = [Node(1), Node(2, port=2651), Node(3)]
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

    expect("stacks that were not read for a while have gaps, each one more", wait_until(has_gaps, limit=25), True)
    expect("no incident is there twice", query("SELECT count(*) - count(DISTINCT key) FROM zelk_incident"), "0")
    expect("a torn line is passed over", reason_of("node1"), "")
    expect("a line that is too long for a frame is rejected, and nothing waits behind it", ["not a line of zkexport" in reason_of(host) for host in ("node2", "node3")], [True, True])

    chain = subprocess.run([fleet.FLEET + "/chain", third], env=fleet.environment | {"PGUSER": "zelk_reader"}, capture_output=True, text=True).stdout
    expect("the chain is whole, and its texts do not drive the terminal", (len(chain.splitlines()), "disk?07" in chain),
           (4, True))

    # Files that are begun now are sent at once, and those before them go.
    record_many(nodes[0], "later", 500).communicate()
    expect("the spool keeps what it needs", wait_until(lambda: len(nodes[0].run(
        "sh", "-c", "ls /var/lib/zelk/spool/*.json").split()) <= 4), True)

    # What has been sent may not have arrived: the spool keeps it until then.
    gatherer.send_signal(signal.SIGSTOP)
    keys = [line.split()[1] for line in record_many(nodes[0], "later", 300).communicate()[0].splitlines()]
    time.sleep(1)
    spool = nodes[0].run("sh", "-c", "cat /var/lib/zelk/spool/*.json")
    waiting = fleet.missing([("node1", "later", key) for key in keys])
    kill(nodes[1].spool)
    nodes[1].start_spool(ZELK_SPOOL_FILES="2")
    record_many(nodes[1], "later", 600).communicate()
    expect("a spool has a limit", len(nodes[1].run("ls", "/var/lib/zelk/spool").split()), 2)
    expect("no line leaves the spool before it has been taken",
           [key for _, _, key in waiting if key not in spool], [])
    kill(gatherer)
    return start_gatherer("--listen=*:2514", f"--database={fleet.conninfo()}")


def main():
    # The machine does not crash here, so nothing has to be synchronised with the disk.
    fleet.make_cluster("fsync = off", "listen_addresses = '127.0.0.1'")
    fleet.make_database("zelk")
    gatherer = start_gatherer("--listen=*:2514", f"--database={fleet.conninfo()}")
    silent = [socket.create_connection(("127.0.0.1", 2514)) for _ in range(600)]
    begun = time.monotonic()
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
    checks()
    pages()
    setting_up()
    setting_up_shared()
    refused_by_the_database()
    upgraded()
    who_may()
    neighbours()
    half_open(begun, silent)
    vanished(off, gatherer)
    by_tls()
    several_databases()
    killed_gatherers()
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
