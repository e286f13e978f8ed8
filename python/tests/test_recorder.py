# SPDX-License-Identifier: MIT
"""Recording messages: what is kept of them, and from where one may record."""

import enum
import errno
import http
import json
import logging
import os
import pathlib
import pickle
import random
import re
import subprocess
import sys
import threading
import types
import unittest
from decimal import Decimal

import zelk
from support import COMMANDS, HEADER, StackTest
from zelk._library import failure, result_text


class Colour(str, enum.Enum):
    RED = "red"


class Messages(StackTest):
    def test_message_and_arguments_are_kept_apart(self):
        with zelk.Recorder(self.stack) as recorder:
            given = [*"ssrac", *range(-3, 3), *[0.5] * 6, 1]
            error_id = recorder.record("%s %-3s %r %a %c" + "%d %i %u %x %X %o" + "%e %E %f %F %g %G %05.1f", *given)
            message = self.newest()["message"]
            self.assertEqual(message["default"], "%s %-3s %s %s %s" + "%d %i %d %x %X %o" + "%e %E %f %F %g %G %05.1f")
            self.assertEqual([each["type"] for each in message["arguments"]], ["string"] * 5 + ["long_long"] * 6 + ["double"] * 7)
            self.assertEqual([each["value"] for each in message["arguments"]], ["s", "s", "'r'", "'a'", *given[4:]])
            self.assertEqual(self.newest()["id"], error_id)
            recorder.record("%s %d %f", "s", 1, 0.5)  # which is prepared
            self.assertEqual([argument["type"] for argument in self.newest()["message"]["arguments"]], ["string", "long_long", "double"])

    def test_every_message_shows_what_python_shows(self):
        with zelk.Recorder(self.stack) as recorder:
            for message, *args in [
                ("%c%c%c %*d %.*f", "a", 98, "ü", 5, 7, 1, 2.25),
                ("%(name)s has %(count)d%%", types.MappingProxyType({"name": "archive", "count": 5})),
                ("%s", {}),
                ("%r", {"a": 1}),
                ("%05.1f", float("inf")),
                ("%r", ("a", "b")),
                ("%s %s", "nul\0ended", "half \ud800"),
                ("x" * 300 + "%s %d", "y" * 200, 5),
            ]:
                recorder.record(message, *args)
                wanted = message % (args[0] if "%(" in message else tuple(args))
                wanted = wanted.replace("\0", "?").replace("\ud800", "\\ud800")
                self.assertEqual(self.newest()["description"], wanted, message)

    def test_any_conversion_shows_what_python_shows(self):
        seed = int.from_bytes(os.urandom(4), "big")
        chance = random.Random(seed)
        numbers = [0, 1, -1, 7, 255, -255, 2**31, 2**63 - 1, 2**63, -(2**63), -(2**63) - 1, 10**25, True, http.HTTPStatus.NOT_FOUND]
        doubles = [0.0, -0.0, 0.5, -2.25, 1e20, 1.5e300, 1e-7, 123456.789, *map(float, ["inf", "-inf", "nan"]), 3, 10**30, Decimal("0.5")]
        texts = ["", "ab", "öl", "%s", "\U0001f4a9", None, 3, 0.5, b"x", ["l"], "x" * 50, Colour.RED]
        values = {"diu": numbers + [3.9, -0.5], "xXo": numbers, "eEfFgG": doubles, "c": ["a", "ü", 98, 0x20AC], "sra": texts}

        def conversion():
            letters = chance.choice(list(values))
            flags = "".join(flag for flag in "-+ #0" if chance.random() < 0.15)
            size = chance.choice(["", "", "5", "12"]) + chance.choice(["", "", "", ".", ".0", ".2", ".20"])
            return f"%{flags}{size}{chance.choice(['', '', 'l', 'h'])}{chance.choice(letters)}", chance.choice(values[letters])

        with zelk.Recorder(self.stack) as recorder:
            for _ in range(200):
                conversions, args = zip(*(conversion() for _ in range(chance.randrange(1, 4))))
                message = "%%|" + "|".join(conversions)
                recorder.record(message, *args)
                self.assertEqual(self.newest()["description"], message % args, f"{message!r} % {args!r}, seed {seed}")

    def test_a_message_that_comes_again_has_the_arguments_and_the_cause_of_that_time(self):
        with zelk.Recorder(self.stack) as recorder:
            first = recorder.record("first")
            for args, cause in [
                (("a", 1, 0.5), first),
                (("b", 2, 1.0), None),
                (("ö" * 300, 2, 1.5), None),
                (("x" * 511, 2, 1.5), None),
                (("x" * 512, 2, 1.5), None),
                (("b\0", 2, 2.0), first),
                (("c", 2**63, 2.0), None),
                (("half \ud800", 2, 2.0), None),
                (("d", 2, 2), first),
                ((Colour.RED, 1, 3.5), None),
                (("", -1, 3.5), None),
            ]:
                recorder.record("%s %d %f %s", *args, "end", cause=cause, file="again.py", line=1)
                self.assertEqual(self.newest()["description"], ("%s %d %f end" % args).replace("\0", "?").replace("\ud800", "\\ud800"))
                self.assertEqual(self.newest()["cause"], cause)

    def test_a_message_without_arguments_is_a_plain_text(self):
        with zelk.Recorder(self.stack) as recorder:
            for text in ["100%\nof %s", "%", "", "a" * 400, "%" * 401, "ü" * 201]:
                recorder.record(text)
                self.assertEqual(self.newest()["description"], text)
                self.assertEqual(self.newest()["message"]["default"], text.replace("%", "%%") if len(text.encode()) <= 400 else "%s")

    def test_arguments_that_do_not_fit_raise_what_python_raises(self):
        recorder = zelk.Recorder(self.stack)
        counted = [("text", 1), ("%s %s", 1), ("%s", 1, 2), ("%(a)s", "one"), ("%(b)s", {"a": 1}), ("%s %s", {"a": 1}), ("%(a)s %s", {"a": 1})]
        for message, *args in [("%d", "text"), ("%y", 1), ("%", 1), ("%f", "1"), ("%d %", 1), *counted]:
            with self.assertRaises((TypeError, ValueError, KeyError)) as expected:
                message % (args[0] if isinstance(args[0], dict) else tuple(args))
            with self.assertRaises(type(expected.exception), msg=message) as raised:
                recorder.record(message, *args)
            self.assertEqual(str(raised.exception), str(expected.exception))
        self.assertFalse(os.path.exists(self.stack))

    def test_what_is_too_long_is_cut_and_recorded(self):
        with zelk.Recorder(self.stack) as recorder:
            recorder.record("%s", "x" * 5000, file="short")
            recorder.record("y" * 5000, details="z" * 5000, file="short")
        shown = [incident["description"] for incident in self.incidents()]
        self.assertRegex(shown[0], r"^x{700,}\.\.\.$")
        self.assertRegex(shown[1], r"^y{700,}\.\.\.$")

    def test_the_process_has_the_name_of_its_script_or_module(self):
        program = f"import zelk; recorder = zelk.Recorder({self.stack!r}); recorder.record('here'); recorder.record('%s', 'here')"
        os.makedirs(f"{self.folder}/jobs/late")
        for script in ["backup.py", "ü" + "long" * 30, "jobs/__main__.py", "jobs/nightly.py", "jobs/late/__main__.py"]:
            with open(f"{self.folder}/{script}", "w") as file:
                file.write(program)
        for arguments, name in [
            (["backup.py"], "backup.py"),
            (["./ü" + "long" * 30], "ü" + "long" * 24 + "lo"),
            (["-m", "jobs"], "jobs"),
            (["-m", "jobs.nightly"], "jobs.nightly"),
            (["-m", "jobs.late"], "jobs.late"),
            (["-c", program], os.path.basename(sys.executable)),
            ([], os.path.basename(sys.executable)),  # from standard input
        ]:
            subprocess.run([sys.executable, *arguments], check=True, cwd=self.folder, input=program, text=True)
            self.assertEqual([each["process"]["name"] for each in self.incidents()[-2:]], [name] * 2)

    def test_whatever_is_given_with_a_message_is_recorded(self):
        chance = random.Random(7)
        recorders = [zelk.Recorder(self.stack, product=product) for product in (None, "stn", "p" + "ö" * 120)]
        first = recorders[0].record("first")
        for _ in range(100):
            recorder, number = chance.choice(recorders), chance.randrange(3)
            given = {"cause": first, "details": " one\0\ntwo ü\n", "file": "/löng" * 38 + "/\ud800.py", "line": 7}
            given = {name: value for name, value in given.items() if chance.random() < 0.5}
            message, *args = chance.choice([("100%",), ("%s: %d", "disk", number), ("%x %s", number, "ü"), ("%(n)d", {"n": number})])
            recorder.record(message, *args, **given)
            told, source = self.newest(), self.newest()["source"]
            here = {"cause": None, "details": "", "file": __file__, "line": sys._getframe().f_lineno - 2} | given
            self.assertEqual((told["cause"], told["details"], source["line"]), (here["cause"], here["details"].replace("\0", "?"), here["line"]))
            for kept, text in [(source["file"], here["file"]), (source["product"], recorder._product or "")]:
                whole = text.encode("utf-8", "backslashreplace")
                self.assertEqual(kept.encode(), whole if len(whole) <= 200 else b"..." + whole[-200:])
            self.assertEqual(told["description"], message % (args[0] if "(" in message else tuple(args)) if args else message)


class Stacks(StackTest):
    def test_a_stack_that_cannot_be_had_is_an_error_with_code_and_text(self):
        missing = zelk.Recorder("/missing/x.stack").__enter__()  # which opens nothing yet
        with self.assertRaises(zelk.ZelkError) as refused:
            missing.record("lost")
        self.assertEqual(str(refused.exception), "/missing/x.stack: directory missing")
        recorder = zelk.Recorder(self.stack)
        known = recorder.record("first")
        for cause in ["no ID", "ü" * 42, known + "\0", known]:
            if cause == known:
                os.truncate(self.stack, 100)  # now the stack is what is wrong
            for message, *args in [("text",), ("%s", "prepared")]:
                with self.assertRaises(zelk.ZelkError) as refused:
                    recorder.record(message, *args, cause=cause, file="again.py", line=1)
                self.assertNotIsInstance(refused.exception, OSError)
                self.assertEqual(str(refused.exception).rpartition(": ")[0], self.stack if cause == known else repr(cause))
                if cause != known:
                    recorder.record(message, *args, file="again.py", line=1)  # which is not refused for what was before

    def test_an_error_is_that_of_the_system_where_its_code_stands_for_one(self):
        with open(HEADER) as file:
            codes = {name: int(code) for name, code in re.findall(r"^ +X\(ZELK_(\w+), (-\d+)\)", file.read(), re.MULTILINE)}
        of_system = dict(
            DIR_NO_ACCESS="EACCES", DIR_MISSING="ENOENT", STALE="ESTALE", READ_ONLY="EROFS", NOT_A_DIR="ENOTDIR", NO_SPACE="ENOSPC",
            NO_MEMORY="ENOMEM", TOO_MANY="EMFILE", LINK_LOOP="ELOOP", NAME_TOO_LONG="ENAMETOOLONG", IS_A_DIR="EISDIR",
            FILE_MISSING="ENOENT", NO_ACCESS="EACCES", FILE_EXIST="EEXIST", LOCK="ENOLCK", IO_ERROR="EIO",
        )  # fmt: skip
        self.assertEqual(len(codes), 37)
        for name, code in codes.items():
            error = failure(code, "x.stack")
            self.assertEqual((error.code, str(error)), (code, f"x.stack: {result_text(code)}"))
            self.assertEqual(isinstance(error, OSError), name in of_system, name)
            if name in of_system:
                self.assertEqual((errno.errorcode[error.errno], error.filename), (of_system[name], "x.stack"), name)
            copy = pickle.loads(pickle.dumps(error))
            self.assertEqual((type(copy), vars(copy), str(copy), copy.args), (type(error), vars(error), str(error), error.args))
            self.assertTrue(name in of_system or error.args == (code, "x.stack"))

    def test_a_recorder_and_its_copy_make_no_stack_unless_told_and_close_it(self):
        zelk.Recorder(self.stack).open()
        before = os.listdir("/proc/self/fd")
        for end in [zelk.Recorder.close, lambda recorder: recorder.__exit__(KeyError, KeyError(), None)]:
            copy = pickle.loads(pickle.dumps(zelk.Recorder(pathlib.Path(self.stack), create=False, product="stn"))).open().open()
            copy.record("once more")
            product = self.newest()["source"]["product"]
            self.assertEqual((copy.stack, repr(copy), product), (self.stack, f"zelk.Recorder({self.stack!r})", "stn"))
            self.assertFalse(end(copy))  # what is raised goes on
            self.assertEqual(os.listdir("/proc/self/fd"), before)
            copy.open()
            del copy
        handler = zelk.Handler(self.stack)
        handler.handle(logging.makeLogRecord({"name": "stn", "msg": "logged"}))
        self.assertEqual(self.newest()["description"], "logged")
        handler.close()
        self.assertEqual(os.listdir("/proc/self/fd"), before)
        os.unlink(self.stack)
        with self.assertRaisesRegex(zelk.ZelkError, "no such file"):
            pickle.loads(pickle.dumps(zelk.Recorder(self.stack, create=False))).open()

    def test_decode_says_what_zkdecode_says(self):
        seed = int.from_bytes(os.urandom(4), "big")
        chance = random.Random(seed)
        digits = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
        of_syslog = "83/.....2zIZ/.7S.02.e.1..................."
        ids = [zelk.Recorder(self.stack).record("here"), of_syslog, "60......2zIZ/.7S.sqE.U.1.......E/..2...../"]
        ids += [header + of_syslog[1:] for header in "./0123456789ABC"]  # versions and locations
        ids += [of_syslog[0] + facility + of_syslog[2:] for facility in digits]
        for _ in range(150):
            changed = list(chance.choice(ids[:3]))
            for _ in range(chance.randrange(1, 4)):
                changed[chance.randrange(42)] = chance.choice(digits)
            ids.append("".join(changed))
        for error_id in ids:
            said = subprocess.run([f"{COMMANDS}/zkdecode", "--json", error_id], capture_output=True, text=True)
            if said.returncode == 0:
                self.assertEqual(json.loads(said.stdout), zelk.decode(error_id), seed)
            else:
                with self.assertRaises(zelk.ZelkError, msg=f"{error_id}, seed {seed}") as refused:
                    zelk.decode(error_id)
                self.assertTrue(str(refused.exception).startswith(f"'{error_id}': "))
        for bad in ["", "x", "?" * 42, "ü" * 42, "7" * 42, of_syslog + ".", of_syslog[:-1], of_syslog[:-1] + "0"]:
            with self.assertRaises(zelk.ZelkError, msg=bad) as none:
                zelk.decode(bad)
            self.assertEqual(none.exception.code, -36, bad)

    def test_decode_names_every_file_of_a_stack_of_this_node(self):
        names = ["first", "n" * 255, "\udcff", *map(str, range(40))]
        program = f"""
import os, zelk
error_id = zelk.Recorder("first").record("here")
os.chdir("/var/adm/zelk/stacks")
for name in {names[1:]!r}: os.link("first", name)
print(*map(ascii, sorted(zelk.decode(error_id)["stack_files"])), sep="\\n")
for name in {names!r}: os.unlink(name)
print(zelk.decode(error_id)["stack_files"])
os.chmod(".", 0o3770)
os.setgroups([])
os.setgid(65534)
os.setuid(65534)  # who may not look into the folder
print(*zelk.decode(error_id))
"""
        enter = "mount -t tmpfs none /var && mkdir -p /var/adm/zelk/stacks && exec python3 -c \"$1\""
        said = subprocess.run(["unshare", "--mount", "sh", "-c", enter, "-", program], capture_output=True, text=True)
        if "unshare: " in said.stderr or "mount: " in said.stderr:
            self.skipTest("the machine forbids a mount namespace")
        paths = [ascii(f"/var/adm/zelk/stacks/{name}") for name in sorted(names)]
        self.assertEqual(said.stdout.splitlines(), [*paths, "[]", "id version location time node local"], said.stderr)

    def test_what_is_no_text_or_no_number_of_a_line_is_refused(self):
        no_texts = [{"message": b"m"}, {"message": None}, {"details": b"d"}, {"cause": b"c"}]
        for given in [*no_texts, {"line": 0.5}, {"line": 2**31}, {"line": -(2**31) - 1}]:
            is_integer = isinstance(given.get("line"), int)
            with self.assertRaises(ValueError if is_integer else TypeError):
                zelk.Recorder(self.stack).record(**{"message": "text"} | given)


class Many(StackTest):
    def test_threads_share_a_recorder(self):
        recorder = zelk.Recorder(self.stack)

        def record_seven(worker: int) -> None:
            own = recorder if worker % 2 else zelk.Recorder(self.stack)
            for number in range(7):
                own.record("worker %d, %d, thread %d", worker, number, threading.get_native_id(), file="short, so that all fit")

        record_seven(7)
        threads = [threading.Thread(target=record_seven, args=(worker,)) for worker in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        record_seven(5)
        self.assertEqual(len({incident["description"] for incident in self.incidents()}), 42)
        for incident in self.incidents():
            self.assertEqual(incident["message"]["arguments"][2]["value"], incident["process"]["thread"])

    def test_a_child_opens_the_stack_anew_whoever_held_the_recorder(self):
        before = os.listdir("/proc/self/fd")
        recorder, other, late = (zelk.Recorder(self.stack) for _ in range(3))

        def record_two(who: str) -> None:
            recorder.record("%s", who)
            (late if who == "child" else other).record(f"{who} too")

        record_two("parent")
        with recorder._lock:  # as another thread might when it forks
            child = os.fork()
            if child == 0:
                has_opened = len(os.listdir("/proc/self/fd")) > len(before)
                record_two("child")
                os._exit(has_opened)
        self.assertEqual(os.waitpid(child, 0)[1], 0)
        record_two("parent again")
        incidents = self.incidents()
        shown = ["parent", "parent too", "child", "child too", "parent again", "parent again too"]
        self.assertEqual([incident["description"] for incident in incidents], shown)
        numbers = [os.getpid()] * 2 + [child] * 2 + [os.getpid()] * 2
        self.assertEqual([incident["process"]["id"] for incident in incidents], numbers)
        self.assertEqual([incident["process"]["thread"] for incident in incidents], numbers)


if __name__ == "__main__":
    unittest.main()
