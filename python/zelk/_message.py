# SPDX-License-Identifier: MIT
"""Messages and their arguments, kept apart: what `message % args` shows, as a record holds it."""

import functools
import re
from typing import Any, Mapping, NamedTuple, Optional, Tuple, Union

from ._library import DOUBLE, LONG_LONG, TEXT, Argument, encode

_CONVERSION = re.compile(r"%(?:\((?P<key>[^)]*)\))?(?P<form>[-+ #0]*(?:\*|\d+)?(?:\.(?:\*|\d*))?)[hlL]?(?P<letter>.)", re.DOTALL)
_DESCRIPTION_MAX = 400  # bytes of a message; a longer one is recorded as a text, which is cut where it does not fit
_LETTERS = "sradiuxXoeEfFgGc"
_INT64 = range(-(2**63), 2**63)

_Field = Union[int, float, bytes]


class _Conversion(NamedTuple):
    before: str  # the text up to it
    key: Optional[str]  # of "%(key)s"
    form: str  # flags, width and precision
    letter: str


class Message(NamedTuple):
    """A message as a record takes it, and its arguments as ctypes have them."""

    text: bytes
    arguments: Any
    count: int
    size: int  # of the arguments in a record, in bytes


_NO_ARGUMENTS = (Argument * 0)()


@functools.lru_cache(maxsize=512)
def _parse(message: str) -> Optional[Tuple[Tuple[_Conversion, ...], str]]:
    """Its conversions, and the text behind the last one, both with "%%" as it stands. None where a "%" begins nothing that
    could be recorded."""
    found = []
    before = ""
    end = 0
    for match in _CONVERSION.finditer(message):
        before += message[end : match.start()]
        end = match.end()
        if match["letter"] == "%":
            before += "%%"
        elif match["letter"] in _LETTERS and "*" not in match["form"]:
            found.append(_Conversion(before, match["key"], match["form"], match["letter"]))
            before = ""
        else:
            return None
    rest = before + message[end:]
    return None if rest.replace("%%", "").count("%") else (tuple(found), rest)


def _field(conversion: _Conversion, value: Any) -> Tuple[str, _Field]:
    """The conversion that is recorded, and its argument. What C would show otherwise is recorded as Python shows it."""
    form, letter = conversion.form, conversion.letter
    if letter in "sra":
        text = value if letter == "s" and isinstance(value, str) else ("%" + letter) % (value,)
        if not form or text.isascii():  # C counts bytes
            return "%" + form + "s", encode(text)
    elif letter in "diuxXo" and isinstance(value, int):
        if value in _INT64 and (letter in "diu" or value >= 0) and "#" not in form:
            return "%" + form + ("d" if letter == "u" else letter), int(value)
    elif letter in "eEfFgG" and isinstance(value, (int, float)):
        return "%" + form + letter, float(value)
    return "%s", encode(("%" + form + letter) % (value,))


def plain(text: str) -> Message:
    """A text without conversions."""
    encoded = encode(text)
    if len(encoded) <= _DESCRIPTION_MAX:
        return Message(encoded.replace(b"%", b"%%"), _NO_ARGUMENTS, 0, 0)
    return _made(b"%s", [encoded])


@functools.lru_cache(maxsize=None)
def _array_type(count: int) -> Any:
    return Argument * count


def _made(text: bytes, fields: "list[_Field]") -> Message:
    arguments = _array_type(len(fields))()
    size = 0
    for argument, field in zip(arguments, fields):
        if isinstance(field, bytes):
            argument.kind = TEXT
            argument.text = field
            size += 4 + len(field) + 1
        elif isinstance(field, float):
            argument.kind = DOUBLE
            argument.double = field
            size += 12
        else:
            argument.kind = LONG_LONG
            argument.integer = field
            size += 12
    return Message(text, arguments, len(fields), size)


@functools.lru_cache(maxsize=512)
def _usual(message: str) -> Optional[Tuple[str, bytes]]:
    """Of a message with plain "%s", "%d" and "%f": the letters of its conversions, and its text. None for any other."""
    parsed = _parse(message) if len(message) <= _DESCRIPTION_MAX else None
    if parsed is None or any(each.key is not None or each.form or each.letter not in "sdf" for each in parsed[0]):
        return None
    letters = "".join(each.letter for each in parsed[0])
    return letters, encode("".join(f"{each.before}%{each.letter}" for each in parsed[0]) + parsed[1])


def _make_usual(letters: str, text: bytes, args: Tuple[Any, ...]) -> Optional[Message]:
    """What `make` gives for arguments of the types that the letters stand for; None for any other."""
    arguments = _array_type(len(args))()
    size = 0
    for argument, letter, value in zip(arguments, letters, args):
        kind = type(value)
        if letter == "s" and kind is str:
            argument.kind = TEXT
            argument.text = encoded = encode(value)
            size += 5 + len(encoded)
        elif letter == "d" and kind is int and -(2**63) <= value < 2**63:
            argument.kind = LONG_LONG
            argument.integer = value
            size += 12
        elif letter == "f" and kind is float:
            argument.kind = DOUBLE
            argument.double = value
            size += 12
        else:
            return None
    return Message(text, arguments, len(args), size)


def make(message: str, args: Union[Tuple[Any, ...], Mapping[str, Any]]) -> Message:
    """The message with its arguments; raises what `message % args` raises. Without arguments it is a plain text."""
    if not args:
        return plain(message)
    is_tuple = isinstance(args, tuple)
    usual = _usual(message)
    if usual is not None and is_tuple and len(usual[0]) == len(args):
        made = _make_usual(usual[0], usual[1], args)  # type: ignore[arg-type]
        if made is not None:
            return made
    parsed = _parse(message) if len(message) <= _DESCRIPTION_MAX else None
    if parsed is None or (is_tuple and len(parsed[0]) != len(args)):
        return plain(message % args)  # or the reason why not
    conversions, rest = parsed
    text = ""
    fields = []
    for index, conversion in enumerate(conversions):
        if is_tuple and conversion.key is not None:
            raise TypeError("format requires a mapping")
        value = args[index] if is_tuple else args if conversion.key is None else args[conversion.key]  # type: ignore
        shown, field = _field(conversion, value)
        text += conversion.before + shown
        fields.append(field)
    return _made(encode(text + rest), fields)
