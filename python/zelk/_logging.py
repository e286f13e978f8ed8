# SPDX-License-Identifier: MIT
"""Incidents from what a program logs, and from what ends it."""

import functools
import logging
import os
import sys
import threading
from typing import Any, Optional, Tuple, Union

from ._library import encode
from ._message import make
from ._recorder import UNKNOWN, Recorder


@functools.lru_cache(maxsize=512)
def _origin(logger: str, level: str, thread: Optional[str]) -> Tuple[bytes, Optional[str]]:
    """What the details of a log record say of where it comes from, and its product."""
    details = f"logger  {logger}\nlevel  {level}"
    if thread and thread != "MainThread":
        details += f"\nthread  {thread}"
    return encode(details), None if logger == "root" else logger.split(".")[0]


class Handler(logging.Handler):
    """Records what is logged from `level` on in the Error Stack `stack`, which is made where there is none.

    Message and arguments are recorded apart, so a formatter has no effect. An exception that is logged along is recorded
    with its chain, as the cause. The Error ID is left in the log record as `zelk_id`. What cannot be recorded goes to
    `handleError`: nothing is raised into the program that logs.
    """

    def __init__(self, stack: "Union[str, os.PathLike[str]]", level: Union[int, str] = logging.ERROR) -> None:
        super().__init__(level)
        self.recorder = Recorder(stack)
        self._has_usual_filter = type(self).filter is logging.Handler.filter

    def handle(self, record: logging.LogRecord) -> Any:
        """As logging.Handler does, but without a lock, since the recorder has one."""
        if not self.filters and self._has_usual_filter:
            self.emit(record)
            return True
        passed = self.filter(record)
        if passed:
            self.emit(passed if isinstance(passed, logging.LogRecord) else record)
        return passed

    def emit(self, record: logging.LogRecord) -> None:
        try:
            message, args = record.msg, record.args
            if args and type(args) is tuple and type(message) is str and not record.exc_info and not record.stack_info:
                key = (message, record.pathname, record.lineno, record.name, record.levelname, record.threadName)
                prepared = self.recorder._prepared.get(key, UNKNOWN)  # where the line came from the same place before
                if prepared is UNKNOWN:
                    details, product = _origin(record.name, record.levelname, record.threadName)
                    prepared = self.recorder._prepare(key, message, details, record.pathname, record.lineno, product)
                error_id = self.recorder._record_prepared(prepared, args, None) if prepared is not None else None
                if error_id is not None:
                    record.zelk_id = error_id
                    return
            record.zelk_id = self._record_unusual(record)
        except Exception:
            self.handleError(record)

    def _record_unusual(self, record: logging.LogRecord) -> str:
        cause = None
        if record.exc_info and record.exc_info[1] is not None:
            cause = self.recorder.record_exception(record.exc_info[1])
        details, product = _origin(record.name, record.levelname, record.threadName)
        if record.stack_info:
            details += encode(f"\n{record.stack_info}")
        message = make(str(record.msg), record.args or ())
        return self.recorder._record(message, cause, details, record.pathname, record.lineno, product)

    def close(self) -> None:
        self.recorder.close()
        super().close()


def _record_last(recorder: Recorder, exception: Optional[BaseException]) -> None:
    """Records what ends a program or a thread; an order to end is no incident."""
    if exception is None or isinstance(exception, (KeyboardInterrupt, SystemExit)):
        return
    try:
        recorder.record_exception(exception)
    except Exception as failure:
        if sys.stderr is not None:
            print(f"zelk: the exception is not recorded: {failure}", file=sys.stderr)


def install_excepthook(stack: "Union[str, os.PathLike[str]]") -> None:
    """Records the exception that ends the program, or one of its threads, in the Error Stack `stack`. The hooks that were
    there still run. A stack that cannot be written gives a line on standard error."""
    recorder = Recorder(stack)
    old_hook = sys.excepthook
    old_thread_hook = threading.excepthook

    def hook(kind: Any, value: Any, trace: Any) -> None:
        _record_last(recorder, value)
        old_hook(kind, value, trace)

    def thread_hook(args: Any) -> None:
        _record_last(recorder, args.exc_value)
        old_thread_hook(args)

    sys.excepthook = hook
    threading.excepthook = thread_hook
