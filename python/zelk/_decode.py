# SPDX-License-Identifier: MIT
"""What an Error ID says."""

import ctypes
import datetime
import ipaddress
import os
from typing import Any, Dict

from ._library import EID_SIZE, FILE_MISSING, INV_FID, TimeVal, failure, zelk

_DIGITS = frozenset("./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz")
_STACKS = "/var/adm/zelk/stacks"
_DIR_MISSING = -14
_SLOT_SIZE = 256
_LOCATIONS = ("template", "stack", "syslog")
_FACILITIES = (
    "kern user mail daemon auth syslog lpr news uucp cron authpriv ftp ntp security console clock "
    "local0 local1 local2 local3 local4 local5 local6 local7"
).split()
_SEVERITIES = "emerg alert crit err warning notice info debug".split()


def decode(id: str) -> Dict[str, Any]:
    """What the Error ID `id` says, by the keys of `zkdecode --json`: id, version, location, time (in UTC), node, local,
    and stack_files, template or facility and severity where they apply. Raises ZelkError for a text that is none. Where the
    directory of the stacks cannot be read, stack_files is left out."""
    if len(id) != EID_SIZE - 1 or not _DIGITS.issuperset(id) or id[-1] not in "./":
        raise failure(INV_FID, repr(id))
    local, version, location, facility, severity, ipv6 = (ctypes.c_int() for _ in range(6))
    label = ctypes.c_uint()
    time = TimeVal()
    address = ctypes.create_string_buffer(16)
    slots = 16
    while True:
        names = ctypes.create_string_buffer(slots * _SLOT_SIZE)
        outputs = [ctypes.byref(each) for each in (label, facility, severity, time)]
        places = [ctypes.byref(each) for each in (local, version, location)]
        result = zelk.zk_decode_eid_2(0, None, id.encode(), *places, names, slots, *outputs, address, ctypes.byref(ipv6))
        if not names.raw[(slots - 1) * _SLOT_SIZE]:
            break
        slots *= 2  # with all of them taken there may be more
    is_stack_here = location.value == _LOCATIONS.index("stack") and local.value == 1  # known once all but the entry is decoded
    are_files_known = result in (0, FILE_MISSING, _DIR_MISSING)
    if not are_files_known and not is_stack_here:
        raise failure(result, repr(id))

    moment = datetime.datetime.fromtimestamp(time.seconds, datetime.timezone.utc).replace(microsecond=time.microseconds)
    node = ipaddress.ip_address(address.raw if ipv6.value == 1 else address.raw[:4])
    decoded: Dict[str, Any] = {
        "id": id,
        "version": version.value,
        "location": _LOCATIONS[location.value],
        "time": moment.strftime("%Y-%m-%dT%H:%M:%S.%fZ"),
        "node": str(node),
        "local": local.value == 1,
    }
    if is_stack_here and are_files_known:
        slot = (names.raw[at : at + _SLOT_SIZE].split(b"\0")[0] for at in range(0, len(names), _SLOT_SIZE))
        decoded["stack_files"] = [f"{_STACKS}/{os.fsdecode(name)}" for name in slot if name]
    elif decoded["location"] == "template":
        decoded["template"] = label.value
    elif decoded["location"] == "syslog":
        decoded["facility"] = _FACILITIES[facility.value >> 3]
        decoded["severity"] = _SEVERITIES[severity.value]
    return decoded
