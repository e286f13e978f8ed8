# SPDX-License-Identifier: MIT
"""CPU time of recording from Python in nanoseconds, as JSON: `record`, and a line logged by zelk.Handler and by the
SysLogHandler of Python, which sends to a socket that is read."""

import json
import logging
import logging.handlers
import os
import signal
import socket
import tempfile
import time

import zelk

ROUNDS, CALLS = 7, 2000


def measured(call):
    """The fastest round."""
    times = []
    for _ in range(ROUNDS):
        start = time.thread_time_ns()
        for number in range(CALLS):
            call(number)
        times.append((time.thread_time_ns() - start) / CALLS)
    return min(times)


def read_all(log):
    while log.recv(65536):
        pass


with tempfile.TemporaryDirectory() as folder:
    recorder = zelk.Recorder(folder + "/a.stack")
    result = {"record": measured(lambda number: recorder.record("Disk %s: %d sectors are unreadable.", "disk07", number))}

    log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    log.bind(folder + "/log")
    reader = os.fork()
    if reader == 0:
        read_all(log)
    for name, handler in [
        ("Handler", zelk.Handler(folder + "/b.stack")),
        ("SysLogHandler", logging.handlers.SysLogHandler(folder + "/log")),
    ]:
        logger = logging.Logger("stn.disk")
        logger.addHandler(handler)
        result[name] = measured(lambda number: logger.error("Disk %s: %d sectors are unreadable.", "disk07", number))
    os.kill(reader, signal.SIGTERM)
    os.waitpid(reader, 0)
    print(json.dumps(result))
