# SPDX-License-Identifier: MIT
"""Exceptions, the chains that their causes make, and what is recorded of each."""

import traceback
from types import FrameType
from typing import List, Optional, Tuple

CHAIN_MAX = 100  # exceptions of a chain that are recorded
_FRAMES_MAX = 12  # of a traceback; a record has room for fewer
_TEXT_MAX = 400  # characters of the text of an exception
_KNOWN = "__zelk_id__"


def known_id(exception: BaseException) -> Optional[str]:
    """The Error ID of an exception that was recorded already."""
    known = getattr(exception, "__dict__", {}).get(_KNOWN)
    return known if isinstance(known, str) else None


def remember(exception: BaseException, error_id: str) -> None:
    exception.__dict__[_KNOWN] = error_id


def _cause_of(exception: BaseException) -> Optional[BaseException]:
    if exception.__cause__ is not None or exception.__suppress_context__:
        return exception.__cause__
    return exception.__context__


def unrecorded(newest: BaseException) -> Tuple[List[BaseException], Optional[str], int]:
    """The exceptions of the chain that have to be recorded, the first cause first; the Error ID of the one before them; and
    how many before them are left out. A chain may be a circle."""
    chain = [newest]
    seen = {id(newest)}
    cause = _cause_of(newest)
    left_out = 0
    while cause is not None and id(cause) not in seen:
        known = known_id(cause)
        if known is not None:
            return chain[::-1], known if left_out == 0 else None, left_out
        if len(chain) < CHAIN_MAX:
            chain.append(cause)
        else:
            left_out += 1
        seen.add(id(cause))
        cause = _cause_of(cause)
    return chain[::-1], None, left_out


def description(exception: BaseException) -> str:
    """ "Type: text", as a traceback ends."""
    name = type(exception).__name__
    try:
        text = str(exception)
    except BaseException:  # an order to end, too, is not one when it comes from here
        text = "<exception str() failed>"
    if len(text) > _TEXT_MAX:
        text = text[: _TEXT_MAX - 3] + "..."
    return f"{name}: {text}" if text else name


def place_of(frame: FrameType, line: int) -> Tuple[str, int, Optional[str]]:
    """File, line and top package."""
    module = frame.f_globals.get("__name__")
    product = module.split(".")[0] if isinstance(module, str) else None
    return frame.f_code.co_filename, line, product


def innermost(exception: BaseException) -> Optional[Tuple[str, int, Optional[str]]]:
    """Where the exception was raised; None when it never was."""
    last = exception.__traceback__
    if last is None:
        return None
    while last.tb_next is not None:
        last = last.tb_next
    return place_of(last.tb_frame, last.tb_lineno)


def traceback_lines(exception: BaseException) -> List[str]:
    """The newest frames of its traceback, the outermost first, behind "..." where there are more."""
    shown = "".join(traceback.format_tb(exception.__traceback__, limit=-_FRAMES_MAX))
    depth, frame = 0, exception.__traceback__
    while frame is not None and depth <= _FRAMES_MAX:
        depth, frame = depth + 1, frame.tb_next
    return (["..."] if depth > _FRAMES_MAX else []) + shown.splitlines()


def newest_lines(lines: List[str], room: int, keep_first: bool) -> bytes:
    """As many lines from the end as have room, with "..." in place of those before them."""
    encoded = [line.encode("utf-8", "backslashreplace").replace(b"\0", b"?") for line in lines]
    first = [encoded.pop(0)] if keep_first else []
    if sum(len(line) + 1 for line in first + encoded) <= room:
        return b"\n".join(first + encoded)
    used = len(b"...") + sum(len(line) + 1 for line in first)
    start = len(encoded)
    while start > 0 and used + len(encoded[start - 1]) + 1 <= room:
        start -= 1
        used += len(encoded[start]) + 1
    return b"\n".join(first + [b"..."] + encoded[start:])
