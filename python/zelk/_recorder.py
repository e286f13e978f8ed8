# SPDX-License-Identifier: MIT
"""Recorders: an open Error Stack, and what is recorded into it."""

import ctypes
import functools
import os
import sys
import threading
import weakref
from types import TracebackType
from typing import Any, Dict, Mapping, Optional, Tuple, Type, Union

from . import _chain
from ._library import EID_SIZE, INV_FID, Incident, encode, failure, record
from ._message import Form, Message, form_of, make, plain

_BODY_MAX = 1024  # bytes of a record
_FIXED_SIZE = 4 + EID_SIZE + EID_SIZE + 4 + 3 * 4 + 4 + 2 * 4 + 4  # of its numbers and Error IDs
_PREPARED_MAX = 256  # incidents that are kept prepared
_FILE_MAX = 200  # bytes of the name of a source file that are recorded, from its end

_recorders: "weakref.WeakSet[Recorder]" = weakref.WeakSet()


def _process_name() -> bytes:
    """What the program is called: its script, its module or, of an interpreter without one, that."""
    main = sys.modules.get("__main__")
    spec = getattr(main, "__spec__", None)
    name = spec.name if spec is not None else os.path.basename(sys.argv[0] if sys.argv else "")
    name = name[: -len(".__main__")] if name.endswith(".__main__") else name
    return encode(name if name and name != "-c" else os.path.basename(sys.executable or "python3"))[:100]


@functools.lru_cache(maxsize=512)
def _file(name: str) -> bytes:
    encoded = encode(name)
    return encoded if len(encoded) <= _FILE_MAX else b"..." + encoded[-_FILE_MAX:]


_record_incident = record.zk_record_incident
_get_ident = threading.get_ident
UNKNOWN: Any = object()  # whether a message can be prepared


def _leader() -> Optional[int]:
    """The thread that calls this, if it has the number of the process, so that nobody has to be asked for it."""
    return _get_ident() if threading.get_native_id() == os.getpid() else None


class Prepared:
    """An incident of one place in a program, which differs in its arguments and its cause only."""

    def __init__(self, form: Form, incident: Incident) -> None:
        self.fill = form.fill
        self.arguments = form.arguments
        self.incident = incident
        self.has_cause = False
        self.is_of_leader = False
        self.pointer = ctypes.byref(incident)


class Recorder:
    """Records into the Error Stack `stack`, whose name is relative to /var/adm/zelk/stacks unless it begins with "/".

    The stack is opened when the first incident is recorded, or by `open`; with `create` it is made where there is none.
    `product` is recorded with each incident. Any number of threads may use a recorder. After `fork`, and in the processes
    of `multiprocessing`, it opens the stack anew. It is a context manager that closes itself.
    """

    def __init__(self, stack: "Union[str, os.PathLike[str]]", *, create: bool = True, product: Optional[str] = None) -> None:
        self._stack = os.fspath(stack)
        self._create = create
        self._product = product
        self._handle: Any = None
        self._lock = threading.Lock()
        self._name = _process_name()
        self._incident = Incident(process_name=self._name, process_id=os.getpid())  # the one that is being recorded, and its Error ID
        self._incident_pointer = ctypes.byref(self._incident)
        self._eid = ctypes.create_string_buffer(EID_SIZE)
        self._eid_pointer = ctypes.byref(self._eid)
        self._leader = _leader()
        self._prepared: "Dict[Tuple[object, ...], Optional[Prepared]]" = {}
        _recorders.add(self)

    @property
    def stack(self) -> str:
        """The name of the stack, as given."""
        return self._stack

    def open(self) -> "Recorder":
        """Opens the stack, if it is not open yet. Raises ZelkError."""
        with self._lock:
            self._open()
        return self

    def close(self) -> None:
        """Closes the stack. The next incident opens it again."""
        with self._lock:
            if self._handle is not None:
                record.zk_close_recorder(self._handle)
            self._handle = None

    def record(
        self,
        message: str,
        *args: object,
        cause: Optional[str] = None,
        details: Optional[str] = None,
        file: Optional[str] = None,
        line: Optional[int] = None,
    ) -> str:
        """Records an incident and returns its Error ID.

        `message` and `args` are those of `message % args`, and are recorded apart; without `args` it is a plain text.
        `cause` is the Error ID of the incident that caused this one. `file` and `line` are the caller's unless given.
        Raises ZelkError when it cannot be recorded, ValueError for a line beyond 32 bits, and what `message % args` raises.
        """
        if isinstance(line, int) and not -(2**31) <= line < 2**31:
            raise ValueError("a line has to be a number of 32 bits")
        if file is None or line is None:
            caller = sys._getframe(1)
            file = caller.f_code.co_filename if file is None else file
            line = caller.f_lineno if line is None else line
        if not details and args:
            key = (message, file, line)
            prepared = self._prepared.get(key, UNKNOWN)
            if prepared is UNKNOWN:
                prepared = self._prepare(key, message, None, file, line, self._product)
            error_id = self._record_prepared(prepared, args, cause) if prepared is not None else None
            if error_id is not None:
                return error_id
        arguments: Union[Tuple[object, ...], Mapping[str, object]] = args
        if len(args) == 1 and isinstance(args[0], Mapping) and args[0]:
            arguments = args[0]
        return self._record(
            make(message, arguments),
            cause,
            encode(details) if details else None,
            file,
            line,
            self._product,
        )

    def record_exception(self, exception: Optional[BaseException] = None, *, message: Optional[str] = None) -> str:
        """Records an exception, the one that is being handled unless given, and returns its Error ID.

        Each exception that it was raised from (`__cause__`), or while handling (`__context__`), is recorded before it, as
        its cause; of more than 100 the newest, and the details say so. Those that this process has recorded already are not
        recorded again: their Error IDs are taken. The description is "Type: text", or `message`; the details are the end of
        the traceback; file and line are those of its innermost frame, and the product, where the recorder has none, that
        frame's top package.
        Raises ZelkError when it cannot be recorded, and ValueError when there is no exception.
        """
        newest = exception if exception is not None else sys.exc_info()[1]
        if newest is None:
            raise ValueError("no exception is being handled")
        known = _chain.known_id(newest)
        if known is not None:
            return known
        chain, cause, left_out = _chain.unrecorded(newest)
        for index, one in enumerate(chain):
            is_newest = index + 1 == len(chain)
            text = _chain.description(one)
            what = plain(message if is_newest and message is not None else text)
            place = _chain.innermost(one)
            file, line, product = place if place is not None else _calling_place()
            lines = _chain.traceback_lines(one)
            if is_newest and message is not None:
                lines.append(text)
            is_telling = left_out > 0 and (index == 0 or is_newest)  # the first one may be overwritten by then
            if is_telling:
                lines.insert(0, f"{left_out} earlier causes were left out")
            product = self._product if self._product is not None else product
            room = self._room(what, file, product)
            cause = self._record(what, cause, _chain.newest_lines(lines, room, is_telling), file, line, product)
            _chain.remember(one, cause)
        if cause is None:
            raise AssertionError("a chain is never empty")
        return cause

    # What follows is not for callers.

    def _room(self, message: Message, file: str, product: Optional[str]) -> int:
        """Bytes of details that a record has room for."""
        texts = len(self._name) + len(_file(file)) + len(encode(product or "")) + len(message.text)
        return _BODY_MAX - _FIXED_SIZE - message.size - texts - 7  # each text ends in a NUL

    def _record(
        self, message: Message, cause: Optional[str], details: Optional[bytes], file: str, line: int, product: Optional[str]
    ) -> str:
        associated_eid = encode(cause) if cause else None
        file_name = _file(file)
        product_name = _file(product) if product else None
        with self._lock:
            if self._handle is None:
                self._open()
            incident = self._incident
            incident.detecting_file = file_name
            incident.product = product_name
            incident.line = line
            incident.default_message = message.text
            incident.arguments = ctypes.addressof(message.arguments)
            incident.argument_count = len(message.arguments)
            incident.details = details
            incident.associated_eid = associated_eid
            result = _record_incident(0, None, self._handle, self._incident_pointer, self._eid_pointer)
            if result == 0:
                return self._eid.value.decode()
        raise failure(result, repr(cause) if result == INV_FID else self._stack)

    def _prepare(
        self,
        key: "Tuple[object, ...]",
        message: str,
        details: Optional[bytes],
        file: str,
        line: int,
        product: Optional[str],
    ) -> "Optional[Prepared]":
        """Prepares an incident and keeps it under `key`; None for a message whose arguments have to be made each time."""
        form = form_of(message)
        if len(self._prepared) >= _PREPARED_MAX:
            self._prepared.clear()
        prepared = None
        if form is not None:
            incident = Incident(
                process_name=self._name,
                process_id=os.getpid(),
                detecting_file=_file(file),
                product=_file(product) if product else None,
                line=line,
                default_message=form.text,
                arguments=ctypes.addressof(form.arguments),
                argument_count=len(form.arguments),
                details=details,
            )
            prepared = Prepared(form, incident)
        self._prepared[key] = prepared
        return prepared

    def _record_prepared(self, prepared: Prepared, args: Tuple[Any, ...], cause: Optional[str]) -> Optional[str]:
        """As `_record`; None, with nothing recorded, where the arguments are of other types than is usual."""
        lock = self._lock
        lock.acquire()  # half as long as "with" takes
        try:
            if not prepared.fill(args):
                return None
            if self._handle is None:
                self._open()
            is_leader = _get_ident() == self._leader
            if is_leader is not prepared.is_of_leader:
                prepared.is_of_leader = is_leader
                prepared.incident.thread_id = prepared.incident.process_id if is_leader else 0
            if cause or prepared.has_cause:
                prepared.has_cause = bool(cause)
                prepared.incident.associated_eid = encode(cause) if cause else None
            result = _record_incident(0, None, self._handle, prepared.pointer, self._eid_pointer)
            if result == 0:
                return self._eid.value.decode()
        finally:
            lock.release()
        raise failure(result, repr(cause) if result == INV_FID else self._stack)

    def _open(self) -> None:
        if self._handle is not None:
            return
        handle = ctypes.c_void_p()
        name = encode(self._stack)
        if self._create:
            result = record.zk_open_or_create_recorder(0, None, name, 0, ctypes.byref(handle))
        else:
            result = record.zk_open_recorder(0, None, name, ctypes.byref(handle))
        if result != 0:
            raise failure(result, self._stack)
        self._handle = ctypes.c_void_p.from_param(handle.value)  # as a call takes it

    def _begin_anew(self) -> None:
        """In a child process: another thread of the parent may have held the lock, and the parent's stack is its own."""
        self._lock = threading.Lock()
        self._leader = _leader()
        self._incident.process_id = os.getpid()
        self._prepared.clear()
        self.close()

    def __enter__(self) -> "Recorder":
        return self

    def __exit__(
        self, kind: Optional[Type[BaseException]], value: Optional[BaseException], traceback: Optional[TracebackType]
    ) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_handle", None) is not None and record is not None:
            record.zk_close_recorder(self._handle)

    def __getstate__(self) -> Dict[str, Any]:
        return {"stack": self._stack, "create": self._create, "product": self._product}

    def __setstate__(self, state: Dict[str, Any]) -> None:
        Recorder.__init__(self, state["stack"], create=state["create"], product=state["product"])

    def __repr__(self) -> str:
        return f"zelk.Recorder({self._stack!r})"


def _calling_place() -> "Tuple[str, int, Optional[str]]":
    """The nearest frame outside this package."""
    frame = sys._getframe(1)
    while frame.f_back is not None and frame.f_globals.get("__package__") == __package__:
        frame = frame.f_back
    return _chain.place_of(frame, frame.f_lineno)


def _after_fork() -> None:
    for recorder in list(_recorders):
        recorder._begin_anew()


os.register_at_fork(after_in_child=_after_fork)
