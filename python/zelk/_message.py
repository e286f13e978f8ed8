# SPDX-License-Identifier: MIT
"""Messages and their arguments, kept apart: what `message % args` shows, as a record holds it."""

import ctypes
import functools
import math
import re
from typing import Any, Callable, Dict, List, Mapping, NamedTuple, Optional, Tuple, Union

from ._library import DOUBLE, LONG_LONG, TEXT, Argument, encode

_CONVERSION = re.compile(r"%(?:\((?P<key>[^)]*)\))?(?P<form>[-+ #0]*(?:\*|\d+)?(?:\.(?:\*|\d*))?)[hlL]?(?P<letter>.)", re.DOTALL)
_DESCRIPTION_MAX = 400  # bytes of a message; a longer one is recorded as a text, which is cut where it does not fit
_PLACE_SIZE = 512  # bytes of a text of a form, its end included
_FILLED_BY = {  # letter of a form: what it has no place for, and what fills its place
    "s": ("type({0}) is not str or '\\0' in {0}", "{0}.encode()"),
    "d": ("type({0}) is not int or {0}.bit_length() > 63", "{0}"),
    "f": ("type({0}) is not float", "{0}"),
}
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
        text = value if letter == "s" and type(value) is str else ("%" + letter) % (value,)  # an Enum may be a str, too
        if not form or text.isascii():  # C counts bytes
            return "%" + form + "s", encode(text)
    elif letter in "diuxXo" and isinstance(value, int):
        number = int.__index__(value)  # of an IntEnum, too, for which a range would look through all of its numbers
        is_signed = letter in "diu" or (number >= 0 and not {"+", " "}.intersection(form))  # C shows these without a sign
        if number in _INT64 and is_signed and not {"#", "."}.intersection(form):
            return "%" + form + ("d" if letter == "u" else letter), number
    elif letter in "eEfFgG" and isinstance(value, (int, float)):
        if "0" not in form or math.isfinite(value):  # C fills up with blanks otherwise
            return "%" + form + letter, float(value)
    return "%s", encode(("%" + form + letter) % (value,))


def plain(text: str) -> Message:
    """A text without conversions."""
    encoded = encode(text)
    if len(encoded) <= _DESCRIPTION_MAX:
        return Message(encoded.replace(b"%", b"%%"), _NO_ARGUMENTS, 0)
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
    return Message(text, arguments, size)


class Form:
    """A message with plain "%s", "%d" and "%f" that is recorded again and again: its arguments are filled in where they
    stand, which costs less than making them. One thread at a time may use it.

    `fill(args)` fills them in; False, with some of them filled in, for arguments that this form has no place for."""

    def __init__(self, letters: str, text: bytes) -> None:
        self.text = text
        self.arguments = _array_type(len(letters))()
        self.fill = _filler(letters)([_place(argument, letter) for argument, letter in zip(self.arguments, letters)])


def _place(argument: Argument, letter: str) -> Any:
    """What an assignment to its `value` fills the argument by."""
    if letter == "s":
        argument.kind = TEXT
        buffer = ctypes.create_string_buffer(_PLACE_SIZE)
        argument.text = ctypes.addressof(buffer)
        return (ctypes.c_char * (_PLACE_SIZE - 1)).from_buffer(buffer)  # the last byte stays the end
    argument.kind, kind = (LONG_LONG, ctypes.c_int64) if letter == "d" else (DOUBLE, ctypes.c_double)
    return kind.from_buffer(argument, Argument.value.offset)  # type: ignore[attr-defined]


@functools.lru_cache(maxsize=64)
def _filler(letters: str) -> "Callable[[List[Any]], Callable[[Tuple[Any, ...]], bool]]":
    """Makes `Form.fill` from the places of the arguments. It is written out for them: a loop takes twice the time."""
    arguments = [(f"place{number}", f"value{number}", *_FILLED_BY[letter]) for number, letter in enumerate(letters)]
    lines = [
        "def filler(places):",
        f"  {''.join(f'{place}, ' for place, *_ in arguments)} = places",
        "  def fill(args):",
        "    try:",
        f"      {''.join(f'{value}, ' for _, value, *_ in arguments)} = args",
        *(f"      if {has_no_place.format(value)}: return False" for _, value, has_no_place, _ in arguments),
        *(f"      {place}.value = {filling.format(value)}" for place, value, _, filling in arguments),
        "      return True",
        "    except ValueError: return False",  # too few or too many; a text that is too long, or no Unicode
        "  return fill",
    ]
    made: Dict[str, Any] = {}
    exec("\n".join(lines), made)  # of nothing but the letters
    filler: "Callable[[List[Any]], Callable[[Tuple[Any, ...]], bool]]" = made["filler"]
    return filler


def form_of(message: str) -> Optional[Form]:
    """None for a message with other conversions, or without any."""
    parsed = _parse(message) if len(message) <= _DESCRIPTION_MAX else None
    if not parsed or not parsed[0]:
        return None
    if any(each.key is not None or each.form or each.letter not in _FILLED_BY for each in parsed[0]):
        return None
    letters = "".join(each.letter for each in parsed[0])
    return Form(letters, encode("".join(f"{each.before}%{each.letter}" for each in parsed[0]) + parsed[1]))


def make(message: str, args: Union[Tuple[Any, ...], Mapping[str, Any]]) -> Message:
    """The message with its arguments; raises what `message % args` raises. Without arguments it is a plain text."""
    if not args:
        return plain(message)
    is_tuple = isinstance(args, tuple)
    parsed = _parse(message) if len(message) <= _DESCRIPTION_MAX else None
    if parsed is None or (is_tuple and len(parsed[0]) != len(args)):
        return plain(message % args)  # or the reason why not
    conversions, rest = parsed
    if not is_tuple and any(each.key is None for each in conversions[1:]):
        return plain(message % args)  # a mapping without its keys is one argument
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
