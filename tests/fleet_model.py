# SPDX-License-Identifier: MIT
"""What a fleet has to answer and to send, by a second reading: plain Python over all rows, which are {key: (cause, time)}, and
over the files of a spool. A cause may be one that has not come in."""

DIGITS = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"


def causes(rows, key):
    """(depth, key) of the incident, its cause, and so on, each once."""
    found = []
    while key in rows and key not in found:
        found.append(key)
        key = rows[key][0]
    return list(enumerate(found))


def effects(rows, key):
    """(depth, key) of the incident and all that it led to, each behind its cause, those of one cause in the order of times."""

    def tree(cause, depth):
        found = [(depth, cause)]
        for _, effect in sorted((time, each) for each, (its_cause, time) in rows.items() if its_cause == cause and each != key):
            found += tree(effect, depth + 1)
        return found

    found = tree(key, 0)
    return found if key in rows or len(found) > 1 else []


def first_of(rows, key):
    """The first cause, and whether causes go round in a circle before there is one: then it is where the circle is met."""
    found = [key]
    while key in rows and rows[key][0]:
        key = rows[key][0]
        if key in found:
            return key, True
        found.append(key)
    return key, False


def chain(rows, key):
    return effects(rows, first_of(rows, key)[0])


def first_causes(rows, since):
    """{key: (effects, time)} of what was recorded since then; no time for what has not come in."""
    found = {}
    for key, (_, time) in rows.items():
        first, is_circle = first_of(rows, key)
        if time >= since and not is_circle:
            count, _ = found.get(first, (0, None))
            found[first] = (count + (first != key), rows[first][1] if first in rows else None)
    return found


def bucket(key):
    """Of 4,096 by which rows are spread: the lowest digits of the microsecond, or of the hash."""
    if key.startswith("#"):
        return int(key[-3:], 16)
    return DIGITS.index(key[13]) + 64 * DIGITS.index(key[14])


def sent(files, name="", offset=0):
    """(file, offset, line) that are sent of the files of a spool, {name: bytes}, when those of one are done up to an offset: in the order of
    numbers, no first lines, nor those that were cut short, and of those that are too long as much as has room."""
    for each in sorted(files, key=int):
        at = 0
        for line in files[each].split(b"\n")[:-1]:
            line_at, at = at, at + len(line) + 1
            line = line[:64512]
            if (each != name or line_at >= offset) and not line.startswith(b"#") and not line.endswith(b"#"):
                yield each, line_at, line
