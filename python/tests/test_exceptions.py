# SPDX-License-Identifier: MIT
"""Exceptions, chains of them, logging and hooks."""

import io
import logging
import os
import random
import subprocess
import sys
import threading
import traceback
import unittest
from contextlib import redirect_stderr
from unittest import mock

import zelk
from support import StackTest
from zelk._chain import newest_lines


class Chains(StackTest):
    def setUp(self) -> None:
        super().setUp()
        self.recorder = zelk.Recorder(self.stack)

    def record(self, exception: BaseException, **options: str) -> str:
        return self.recorder.record_exception(exception, **options)

    def test_any_chain_is_recorded_as_python_shows_it(self):
        seed = int.from_bytes(os.urandom(4), "big")
        chance = random.Random(seed)
        for _ in range(50):
            exceptions = [ValueError(number) for number in range(6)]
            for each in exceptions:
                each.__context__ = chance.choice([None, *exceptions])
                if chance.random() < 0.5:
                    each.__cause__ = chance.choice([None, *exceptions])  # hides the context
            ids = {None: None}  # of those that were recorded
            for newest in chance.sample(exceptions, 3):
                chain = []
                one = newest
                while one not in ids and one not in chain:
                    chain.insert(0, one)
                    one = one.__cause__ if one.__cause__ or one.__suppress_context__ else one.__context__
                newest_id = self.record(newest)
                recorded = self.incidents()[-len(chain) :] if chain else []
                self.assertEqual([each["description"] for each in recorded], [f"ValueError: {each}" for each in chain], seed)
                causes = [ids.get(one), *(each["id"] for each in recorded)]
                self.assertEqual([each["cause"] for each in recorded], causes[: len(chain)], seed)
                ids.update(zip(chain, (each["id"] for each in recorded)))
                self.assertEqual(newest_id, ids[newest], seed)

    def test_a_message_takes_the_place_of_the_text_which_goes_into_the_details(self):
        newest = ValueError("bad number")
        newest.__cause__ = OSError("no disk")
        self.record(newest, message="Job 7 ended: 100% lost")
        self.assertEqual([each["description"] for each in self.incidents()], ["OSError: no disk", "Job 7 ended: 100% lost"])
        self.assertEqual(self.newest()["details"], "ValueError: bad number")

    def test_what_an_exception_does_not_stop_the_recording(self):
        class Bad(Exception):
            def __str__(self) -> str:
                raise SystemExit

        for exception in [Bad(), ValueError("\ud800\0"), ValueError("%s %n"), OSError("x" * 400), OSError("x" * 401)]:
            self.record(exception)
        shown = [incident["description"] for incident in self.incidents()]
        self.assertEqual(shown[:3], ["Bad: <exception str() failed>", "ValueError: \\ud800?", "ValueError: %s %n"])
        self.assertEqual(shown[3:], ["OSError: " + "x" * 400, "OSError: " + "x" * 397 + "..."])

    def test_of_a_long_chain_the_newest_hundred_are_recorded(self):
        newest = None
        for number in range(10_000):
            exception = ValueError(str(number))
            exception.__cause__ = newest
            newest = exception
        self.record(newest)
        self.assertEqual(self.newest()["description"], "ValueError: 9999")
        self.assertIn("9900 earlier causes were left out", self.newest()["details"])

    def test_what_is_left_out_of_a_chain_is_told_at_its_ends(self):
        chain = [ValueError(str(number)) for number in range(5)]
        for cause, effect in zip(chain, chain[1:]):
            effect.__cause__ = cause
        self.record(chain[0])
        with mock.patch.object(zelk._chain, "CHAIN_MAX", 3):
            try:
                raise chain[4]
            except ValueError:
                self.recorder.record_exception()
        known, oldest, middle, newest = self.incidents()
        for end in [oldest, newest]:
            self.assertEqual(end["details"].splitlines()[0], "1 earlier causes were left out")
        self.assertEqual((oldest["description"], oldest["cause"]), ("ValueError: 2", None))
        self.assertEqual((middle["cause"], newest["cause"]), (oldest["id"], middle["id"]))
        self.assertNotIn("left out", middle["details"])

    def test_lines_of_a_traceback_keep_the_first_where_it_tells_something(self):
        lines = ["first", "a" * 10, "b" * 10]
        self.assertEqual(newest_lines(lines, 20, True), b"first\n...\nbbbbbbbbbb")
        self.assertEqual(newest_lines(lines, 19, True), b"first\n...")
        self.assertEqual(newest_lines(["a\0", "\ud800"], 20, False), b"a?\n\\ud800")

    def test_details_are_the_newest_twelve_frames_as_far_as_a_record_has_room_for_whole_lines(self):
        code = ["def fail(depth):", "  if depth % 2: fail(depth - 1)", "  if depth: fail(depth - 1)", "  raise OSError(text)"]
        for length in range(100, 200):
            module = {"text": "ö" * 200 if length < 150 else "x" * 380 + "%"}
            exec(compile("\n".join(code), "module.py", "exec"), module)
            recorder = zelk.Recorder(self.stack, product="p" * length)
            try:
                module["fail"](9 + length % 5)  # 11 to 15 frames
            except OSError as exception:
                recorder.record_exception()
                frames = traceback.format_tb(exception.__traceback__)
            whole = ["..."] * (len(frames) > 12) + "".join(frames[-12:]).splitlines()
            told = self.newest()
            self.assertEqual(told["source"]["product"], "p" * length)
            kept = told["details"].splitlines()
            self.assertIn(kept, [whole, ["...", *whole[1 - len(kept) :]]])
            one_more = "\n".join(["...", *whole[-len(kept) :]])
            recorder.record(told["description"], details=one_more, file="module.py", line=4)
            self.assertEqual(self.newest()["details"] == one_more, kept == whole, length)

    def test_an_exception_has_the_place_and_the_product_of_what_raised_it(self):
        for module, product in [("stn.backup.disks", "stn"), ("backup", "backup"), (None, "")]:
            try:
                exec(compile("\nraise OSError", "backup.py", "exec"), {"__name__": module})
            except OSError as exception:
                self.record(exception)
            source = self.newest()["source"]
            found = self.newest()["description"], source["file"], source["line"], source["product"]
            self.assertEqual(found, ("OSError", "backup.py", 2, product))
        try:
            line = sys._getframe().f_lineno + 1
            raise OSError("and handled by the same frame")
        except OSError as exception:
            self.record(exception)
        self.assertEqual(self.newest()["source"]["line"], line)
        self.record(OSError("never raised"))
        here = {"file": __file__, "product": __name__, "line": type(self).record.__code__.co_firstlineno + 1}
        self.assertLess(here.items(), self.newest()["source"].items())

    def test_without_an_exception_there_is_nothing_to_record(self):
        with self.assertRaises(ValueError):
            self.recorder.record_exception()


class Logging(StackTest):
    def setUp(self) -> None:
        super().setUp()
        self.handler = zelk.Handler(self.stack)
        self.log = logging.Logger("stn.backup")
        self.log.addHandler(self.handler)
        self.addCleanup(self.handler.close)

    def test_an_exception_that_is_logged_along_is_the_cause(self):
        try:
            raise OSError("disk full")
        except OSError:
            self.log.exception("Backup of %s stopped at %d%%", "archive", 37)
        cause, logged = self.incidents()
        self.assertEqual((cause["description"], logged["cause"]), ("OSError: disk full", cause["id"]))
        self.assertEqual((logged["source"]["product"], logged["source"]["file"]), ("stn", __file__))

    def test_a_line_is_recorded_alike_in_whichever_way_it_is_logged(self):
        way, where = {"exc_info": True}, "logger  stn.backup\nlevel  ERROR"
        for message, args, options, description in [
            ("100% of %s", (), {}, "100% of %s"),
            ("%s: %d%%", ("disk", 5), {}, "disk: 5%"),
            ("%s", ({"a": 1},), {}, "{'a': 1}"),
            ("%(a)s", ({"a": 1},), {}, "1"),
            (ValueError("no text"), (), {}, "no text"),
            (ValueError("%s"), ("a",), {}, "a"),
            ("%s", ("outside",), way, "outside"),  # of an exception that is being handled, but none is
            ("%d", (7,), {"stack_info": True}, "7"),
        ]:
            for _ in range(2):  # prepared the second time
                self.log.error(message, *args, **options)
                newest = self.newest()
                self.assertEqual((newest["description"], newest["cause"]), (description, None))
                self.assertEqual(newest["details"].partition("\nStack (most recent call last):\n")[0], where)
                self.assertEqual("Stack (" in newest["details"], "stack_info" in options)
        self.assertEqual(len(self.incidents()), 16)

    def test_a_line_that_differs_in_one_thing_only_is_recorded_with_it(self):
        usual = {"name": "stn", "levelname": "ERROR", "pathname": "a.py", "lineno": 5, "threadName": "one", "msg": "%d"}
        for change in [{}, {"name": "vol"}, {"levelname": "INFO"}, {"pathname": "b.py"}, {"lineno": 6}, {"threadName": "two"}, {"msg": "%i"}]:
            has = usual | change
            self.handler.emit(logging.makeLogRecord(has | {"args": (7,)}))
            newest = self.newest()
            self.assertEqual(newest["details"], f"logger  {has['name']}\nlevel  {has['levelname']}\nthread  {has['threadName']}")
            self.assertEqual(list(newest["source"].values())[::3] + [newest["description"]], [has["pathname"], has["lineno"], "7"])

    def test_a_filter_and_a_level_decide_what_is_recorded(self):
        class Short(zelk.Handler):
            def filter(self, record):  # and gives another record on
                return super().filter(record) and len(record.msg) < 5 and logging.makeLogRecord(vars(record) | {"msg": "short"})

        def is_not_critical(record: logging.LogRecord) -> bool:
            return record.levelno != logging.CRITICAL

        for handler, filters, wanted in [
            (zelk.Handler(self.stack, "WARNING"), [is_not_critical], ["warn", "long warning", "error"]),
            (Short(self.stack), [], ["short"]),
            (Short(self.stack), [is_not_critical], []),
            (self.handler, [], ["error", "end"]),
        ]:
            log = logging.Logger("filtered")
            log.addHandler(handler)
            for each in filters:
                handler.addFilter(each)
            before = len(self.incidents()) if os.path.exists(self.stack) else 0
            for level, message in [("info", "info"), ("warning", "warn"), ("warning", "long warning"), ("error", "error"), ("critical", "end")]:
                getattr(log, level)(message)
            self.assertEqual([incident["description"] for incident in self.incidents()[before:]], wanted)

    def test_each_line_of_one_place_has_its_own_arguments_and_thread(self):
        numbers = []

        def log(*args: object) -> None:
            numbers.append(threading.get_native_id())
            self.log.error("%s of %d", *args)

        def log_by_another_one(*args: object) -> None:
            self.log.handlers = [zelk.Handler(self.stack)]
            log(*args)

        for args in [("one", 1), ("two", 2), (None, 3)]:
            log(*args)
        for work, args in [(log, ("three", 4)), (log_by_another_one, ("four", 5))]:
            thread = threading.Thread(target=work, args=args, name="worker")
            thread.start()
            thread.join()
        self.assertEqual([each["description"] for each in self.incidents()], ["one of 1", "two of 2", "None of 3", "three of 4", "four of 5"])
        self.assertEqual([each["process"]["thread"] for each in self.incidents()], numbers)
        self.assertTrue(self.newest()["details"].endswith("\nthread  worker"))

    def test_the_error_id_is_left_in_the_record(self):
        seen = []
        root = logging.Logger("root")
        root.addHandler(self.handler)
        root.addFilter(lambda record: seen.append(record) or True)
        root.error("%s", "a tuple")
        root.error("%(what)s", {"what": "a mapping"})
        root.critical({"any": "object"})
        self.assertEqual([record.zelk_id for record in seen], [incident["id"] for incident in self.incidents()])
        self.assertEqual(self.newest()["description"], "{'any': 'object'}")
        self.assertEqual((self.newest()["details"], self.newest()["source"]["product"]), ("logger  root\nlevel  CRITICAL", ""))

    def test_what_cannot_be_recorded_is_not_raised(self):
        for handler, logged in [(zelk.Handler("/missing/x.stack"), ("text",)), (self.handler, ("%d", "no number"))]:
            log = logging.Logger("lost")
            log.addHandler(handler)
            with redirect_stderr(io.StringIO()) as said:
                log.error(*logged)
            self.assertIn("--- Logging error ---", said.getvalue())


class Hooks(StackTest):
    def ends(self, *lines: str) -> "subprocess.CompletedProcess[str]":
        """Runs a program with the hooks, and with old ones before them."""
        begin = ["import sys, threading, zelk", "sys.excepthook = lambda *args: print('old hook', args[0].__name__)"]
        begin += ["threading.excepthook = lambda args: print('old thread hook', args.exc_type.__name__)", f"zelk.install_excepthook({self.stack!r})"]
        return subprocess.run([sys.executable, "-c", "\n".join([*begin, *lines])], capture_output=True, text=True)

    def test_what_ends_the_program_or_a_thread_is_recorded_and_still_shown(self):
        ended = self.ends("thread = threading.Thread(target=lambda: 1 / 0)", "thread.start()", "thread.join()", "raise KeyError('end')")
        self.assertEqual((ended.returncode, ended.stdout), (1, "old thread hook ZeroDivisionError\nold hook KeyError\n"))
        shown = [(incident["description"], incident["source"]["line"]) for incident in self.incidents()]
        self.assertEqual(shown, [("ZeroDivisionError: division by zero", 5), ("KeyError: 'end'", 8)])

    def test_an_order_to_end_is_no_incident_and_goes_its_way(self):
        for order in ["KeyboardInterrupt", "SystemExit"]:
            in_thread = [f"def target(): raise {order}", "thread = threading.Thread(target=target)", "thread.start()", "thread.join()"]
            self.ends(*in_thread, f"raise {order}")
        self.assertIn("old hook KeyboardInterrupt", self.ends("raise KeyboardInterrupt").stdout)
        self.ends("class Own(BaseException): pass", "raise Own('no Exception')")
        self.assertEqual([incident["description"] for incident in self.incidents()], ["Own: no Exception"])

    def test_a_stack_that_cannot_be_written_is_told(self):
        program = "import zelk; zelk.install_excepthook('/missing/x.stack'); 1 / 0"
        ended = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True)
        self.assertIn("zelk: the exception is not recorded: /missing/x.stack: directory missing\n", ended.stderr)
        self.assertIn("ZeroDivisionError: division by zero", ended.stderr)


if __name__ == "__main__":
    unittest.main()
