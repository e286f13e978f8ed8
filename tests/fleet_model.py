# SPDX-License-Identifier: MIT
"""What the questions of fleet/schema.sql have to answer, by a second reading: plain Python over all rows, which are
{key: (cause, time)}. A cause may be one that has not come in."""


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
