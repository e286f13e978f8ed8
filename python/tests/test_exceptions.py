# SPDX-License-Identifier: MIT
"""Exceptions, chains of them, logging and hooks."""

import io
import logging
import os
import random
import subprocess
import sys
import traceback
import unittest
from contextlib import redirect_stderr, suppress
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
        try:
            raise newest
        except ValueError:
            for message in ["Job 7 ended: 100% lost", "known already"]:
                self.record(newest, message=message)
        self.record(KeyError(), message="")
        told = [(each["description"], each["details"].splitlines()[-1:]) for each in self.incidents()]
        self.assertEqual(told, [("OSError: no disk", []), ("Job 7 ended: 100% lost", ["ValueError: bad number"]), ("", ["KeyError"])])

    def test_what_an_exception_does_not_stop_the_recording(self):
        class Bad(Exception):
            def __str__(self, *_: object) -> str:
                raise SystemExit

            __setattr__ = __getattr__ = __eq__ = __bool__ = __str__

        for text in ["\ud800\0", "%s %n", " two\nlines ", "ö" * 250, "x" * 401, ""]:
            self.record(ValueError(text))
        for exception in [Bad(), OSError(2, "effect")]:
            with suppress(Exception):
                raise exception from Bad()
            try:
                raise KeyError("another one")
            except KeyError:
                self.record(exception)
        texts = [": \\ud800?", ": %s %n", ":  two\nlines ", ": " + "ö" * 250, ": " + "x" * 397 + "...", ""]
        shown = [incident["description"].replace("Bad: <exception str() failed>", "bad") for incident in self.incidents()]
        self.assertEqual(shown, [*("ValueError" + text for text in texts), "bad", "bad", "bad", "FileNotFoundError: [Errno 2] effect"])

    def test_of_a_long_chain_the_newest_hundred_are_recorded_and_its_ends_tell_so(self):
        chain = [ValueError(str(number)) for number in range(3000)]
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
        self.assertEqual(middle["source"]["line"], newest["source"]["line"] + 2)  # where it was recorded, since it was never raised
        self.record(chain[2999])
        self.assertEqual(self.newest()["description"], "ValueError: 2999")
        self.assertEqual(self.newest()["details"], "2895 earlier causes were left out")

    def test_lines_of_a_traceback_keep_the_first_where_it_tells_something(self):
        lines = ["first", "a" * 10, "b" * 10]
        self.assertEqual(newest_lines(lines, 20, True), b"first\n...\nbbbbbbbbbb")
        self.assertEqual(newest_lines(lines, 19, True), b"first\n...")
        self.assertEqual(newest_lines(["a\0", "\udcff"], 20, False), b"a?\n\\udcff")

    def test_details_are_the_newest_twelve_frames_as_far_as_a_record_has_room_for_whole_lines(self):
        code = ["def fail(depth):", "  if depth % 2: fail(depth - 1)", "  if depth: fail(depth - 1)", "  raise OSError(text)"]
        for length in range(100, 200):
            file = ["module.py", "ö" * 40, "m" * 249][length % 3]
            product = "pö"[length % 2] * (length // 2)
            own = product if length % 5 else None  # else it is that of the module
            module = {"text": ["short", "ö" * 200, "x" * 300, "x" * 380 + "%"][length % 4], "__name__": "stn" if own else product}
            exec(compile("\n".join(code), file, "exec"), module)
            try:
                module["fail"](5 + length % 7)  # 7 to 13 frames
            except OSError as exception:
                zelk.Recorder(self.stack, product=own).record_exception()
                frames = traceback.format_tb(exception.__traceback__)
            whole = ["..."] * (len(frames) > 12) + "".join(frames[-12:]).splitlines()
            told = self.newest()
            self.assertEqual(told["source"]["product"], product)
            kept = told["details"].splitlines()
            self.assertIn(kept, [whole, ["...", *whole[len(whole) + 1 - len(kept) :]]])
            one_more = "\n".join(whole if kept == whole else ["...", *whole[-len(kept) :]])
            zelk.Recorder(self.stack, product=product).record(told["description"], details=one_more, file=file, line=4)
            self.assertEqual(self.newest()["details"] == one_more, kept == whole, length)

    def test_an_exception_has_the_place_and_the_product_of_what_raised_it(self):
        for module, own, product in [("stn.backup.disks", None, "stn"), ("backup", "own", "own"), ("backup", "", ""), (None, None, "")]:
            try:
                line = sys._getframe().f_lineno + 1
                raise KeyError("the cause")
            except KeyError:
                try:
                    exec(compile("\nraise OSError", "backup.py", "exec"), {"__name__": module, "__file__": "other.py"})
                except OSError:
                    zelk.Recorder(self.stack, product=own).record_exception()
            told = [list(each["source"].values()) + [each["details"].count("File ")] for each in self.incidents()[-2:]]
            wanted = [[__file__, "", __name__ if own is None else own, line, 1], ["backup.py", "", product, 2, 2]]
            self.assertEqual(told, wanted)
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

    def test_a_line_is_recorded_alike_in_whichever_way_it_is_logged(self):
        logged = []
        self.log.addFilter(lambda record: not logged.append((record, vars(record).copy())))
        way, where, error = {"exc_info": True}, "logger  stn.backup\nlevel  ERROR", OSError("never raised")
        for message, args, options, description, kept in [
            ("100% of %s", (), {}, "100% of %s", []),
            ("%s: %d%%", ("disk", 5), {}, "disk: 5%", ["disk", 5]),
            ("%s", ({"a": 1},), {}, "{'a': 1}", ["{'a': 1}"]),
            ("%(a)s", ({"a": 1},), {}, "1", ["1"]),
            (ValueError("no text"), (), {}, "no text", []),
            (ValueError("%s"), ("a",), {}, "a", ["a"]),
            ("%s", ("outside",), way, "outside", ["outside"]),  # of an exception that is being handled, but none is
            ("%d", (7,), {"stack_info": True}, "7", [7]),
            ("%d%%", (8,), {"exc_info": error}, "8%", [8]),
            ("%d", (9,), {"stack_info": True, "exc_info": error}, "9", [9]),
        ]:
            self.log.error(message, *args, **options)
            record, before = logged[-1]
            for _ in range(2):  # prepared the second time
                newest = self.newest()
                self.assertEqual(vars(record), before | {"zelk_id": newest["id"]})
                self.assertEqual((newest["description"], [each["value"] for each in newest["message"]["arguments"]]), (description, kept))
                self.assertEqual((newest["source"]["product"], newest["details"].partition("\nStack (most recent call last):\n")[0]), ("stn", where))
                self.assertEqual("Stack (" in newest["details"], "stack_info" in options)
                self.assertEqual(newest["cause"], zelk.Recorder(self.stack).record_exception(error) if options.get("exc_info") is error else None)
                self.handler.handle(record)
        told = self.incidents()[-7:]
        self.assertEqual([each["description"] for each in told], ["OSError: never raised", *["8%"] * 3, *["9"] * 3])
        self.assertEqual(told[0]["source"]["product"], "logging")

    def test_a_line_that_differs_in_one_thing_only_is_recorded_with_it(self):
        usual = {"name": "stn.node.disks", "levelname": "ERROR", "pathname": "a.py", "lineno": 5, "threadName": "one", "msg": "%d", "args": (7,)}
        changes = [{}, {"name": "vol"}, {"name": "root"}, {"levelname": "INFO"}, {"pathname": "b.py"}, {"lineno": 6}, {"threadName": "two"}]
        for change in [*changes, {"threadName": None}, {"msg": "%i"}, {"args": (8,)}, {"args": (2**63,)}]:
            has = usual | change
            self.handler.emit(logging.makeLogRecord(has))
            newest = self.newest()
            thread = f"\nthread  {has['threadName']}" if has["threadName"] else ""
            self.assertEqual(newest["details"], f"logger  {has['name']}\nlevel  {has['levelname']}{thread}")
            product = has["name"].split(".")[0].replace("root", "")
            self.assertEqual([*newest["source"].values(), newest["description"]], [has["pathname"], "", product, has["lineno"], str(*has["args"])])

    def test_a_filter_and_a_level_decide_what_is_recorded(self):
        class Short(zelk.Handler):
            def filter(self, record):  # and gives another record on
                return super().filter(record) and len(record.msg) < 5 and logging.makeLogRecord(vars(record) | {"msg": "short"})

        def is_not_critical(record: logging.LogRecord) -> bool:
            return record.levelno != logging.CRITICAL

        for handler, filters, wanted in [
            (zelk.Handler(self.stack, "WARNING"), [is_not_critical], ["warn", "long warning", "error"]),
            (Short(self.stack, logging.NOTSET), [], ["short"] * 3),
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

    def test_what_cannot_be_recorded_is_not_raised(self):
        for handler, logged in [(zelk.Handler("/missing/x.stack"), ("text",)), (self.handler, ("%d", "no number"))]:
            log = logging.Logger("lost")
            log.addHandler(handler)
            with redirect_stderr(io.StringIO()) as said:
                log.error(*logged)
            self.assertIn("--- Logging error ---", said.getvalue())
        order = mock.MagicMock()
        order.__str__.side_effect = KeyboardInterrupt
        with self.assertRaises(KeyboardInterrupt):
            self.log.error("%s", order)


class Hooks(StackTest):
    def ends(self, *lines: str) -> "subprocess.CompletedProcess[str]":
        """Runs a program with the hooks, and with old ones before them."""
        begin = ["import os, sys, threading, zelk", "sys.excepthook = lambda *args: (print('old hook', args[0].__name__, flush=True), os._exit(1))"]
        begin += [f"threading.excepthook = lambda args: print('old thread hook', args.exc_type.__name__, os.path.exists({self.stack!r}))"]
        begin += [f"zelk.install_excepthook({self.stack!r})"]
        return subprocess.run([sys.executable, "-c", "\n".join([*begin, *lines])], capture_output=True, text=True)

    def test_what_ends_the_program_or_a_thread_is_recorded_and_still_shown(self):
        ended = self.ends("thread = threading.Thread(target=lambda: 1 / 0)", "thread.start()", "thread.join()", "raise KeyError('end')")
        self.assertEqual((ended.returncode, ended.stdout), (1, "old thread hook ZeroDivisionError True\nold hook KeyError\n"))
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
        ended = subprocess.run([sys.executable, "-c", f"import sys; sys.stderr = None; {program}"], capture_output=True, text=True)
        self.assertEqual((ended.returncode, ended.stdout), (1, ""))


if __name__ == "__main__":
    unittest.main()
