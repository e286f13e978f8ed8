# SPDX-License-Identifier: MIT
"""The shared libraries that record and decode, and their results as exceptions."""

import ctypes
import errno
from typing import Any, Tuple

EID_SIZE = 43  # an Error ID and its terminator

# Kinds of arguments.
LONG_LONG = 2
DOUBLE = 3
TEXT = 5

FILE_MISSING = -24
INV_FID = -36


class Value(ctypes.Union):
    _fields_ = [("integer", ctypes.c_int64), ("double", ctypes.c_double), ("text", ctypes.c_char_p)]


class Argument(ctypes.Structure):
    """cu_error_arg_t of qx_cu.h."""

    _anonymous_ = ["value"]
    _fields_ = [("kind", ctypes.c_int32), ("value", Value)]


class Incident(ctypes.Structure):
    """zk_incident_t of qx_record.h."""

    _fields_ = [
        ("process_name", ctypes.c_char_p),
        ("process_id", ctypes.c_int32),
        ("parent_id", ctypes.c_int32),
        ("thread_id", ctypes.c_int32),
        ("detecting_file", ctypes.c_char_p),
        ("file_version", ctypes.c_char_p),
        ("product", ctypes.c_char_p),
        ("line", ctypes.c_int32),
        ("catalog", ctypes.c_char_p),
        ("message_set", ctypes.c_int32),
        ("message_number", ctypes.c_int32),
        ("default_message", ctypes.c_char_p),
        ("arguments", ctypes.c_void_p),  # of an array of Argument
        ("argument_count", ctypes.c_uint32),
        ("details", ctypes.c_char_p),
        ("associated_eid", ctypes.c_char_p),
    ]


class TimeVal(ctypes.Structure):
    _fields_ = [("seconds", ctypes.c_int64), ("microseconds", ctypes.c_int64)]


def _load(name: str) -> ctypes.CDLL:
    try:
        return ctypes.CDLL(name)
    except OSError as missing:
        raise ImportError(f"{missing}; the Debian packages libqx-record1 and libqx-zelk1 have it") from missing


zelk = _load("libqx_zelk.so.1")
record = _load("libqx_record.so.1")

zelk.zk_result_text.restype = ctypes.c_char_p
zelk.zk_result_text.argtypes = [ctypes.c_int]

record.zk_open_recorder.argtypes = [ctypes.c_int, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_void_p]
record.zk_open_or_create_recorder.argtypes = [
    ctypes.c_int,
    ctypes.c_char_p,
    ctypes.c_char_p,
    ctypes.c_int32,
    ctypes.c_void_p,
]
# zk_record_incident has no argtypes: it gets pointers that were made once, and looking them over costs a tenth of the call.
record.zk_close_recorder.argtypes = [ctypes.c_void_p]
record.zk_close_recorder.restype = None


class ZelkError(Exception):
    """A call that failed: `code` is the result code of the library, and the text says what it means.

    Where the code stands for an error of the system, such as a full disk, the exception is an `OSError` too.
    """

    def __init__(self, code: int, what: str) -> None:
        super().__init__(code, what)
        self.code = code
        self._what = what

    def __str__(self) -> str:
        return f"{self._what}: {result_text(self.code)}"

    def __reduce__(self) -> "Tuple[Any, ...]":
        return failure, (self.code, self._what)


class SystemZelkError(ZelkError, OSError):
    """One that is an OSError."""

    def __init__(self, code: int, what: str) -> None:
        OSError.__init__(self, _ERRNOS[code], result_text(code), what)
        self.code = code
        self._what = what


def failure(code: int, what: str) -> ZelkError:
    """The exception for a result code; `what` is what the call was about."""
    return SystemZelkError(code, what) if code in _ERRNOS else ZelkError(code, what)


_ERRNOS = {
    -13: errno.EACCES,
    -14: errno.ENOENT,
    -15: errno.ESTALE,
    -16: errno.EROFS,
    -17: errno.ENOTDIR,
    -18: errno.ENOSPC,
    -19: errno.ENOMEM,
    -20: errno.EMFILE,
    -21: errno.ELOOP,
    -22: errno.ENAMETOOLONG,
    -23: errno.EISDIR,
    -24: errno.ENOENT,
    -25: errno.EACCES,
    -27: errno.EEXIST,
    -28: errno.ENOLCK,
    -30: errno.EIO,
}


def result_text(code: int) -> str:
    """What a result code means, in the language of the locale."""
    text: bytes = zelk.zk_result_text(code)
    return text.decode("utf-8", "replace")


def encode(text: str) -> bytes:
    """A text as the library takes it: names of files get their bytes back, and no character ends it early."""
    try:
        encoded = text.encode() if text.isascii() else text.encode("utf-8", "surrogateescape")
    except AttributeError:
        raise TypeError(f"a text has to be a str, not {type(text).__name__}") from None
    except UnicodeEncodeError:  # half of a character
        encoded = text.encode("utf-8", "backslashreplace")
    return encoded.replace(b"\0", b"?") if b"\0" in encoded else encoded
