# SPDX-License-Identifier: MIT
"""CPU time of recording from Python in nanoseconds, as JSON: `record`, and a line logged by zelk.Handler and by the
SysLogHandler of Python, which sends to a socket that is read: the message alone, and with what an incident has too."""

import json
import logging
import logging.handlers
import os
import signal
import socket
import tempfile
import time

import zelk

ROUNDS, CALLS = 15, 1000
MESSAGE = "Disk %s: %d sectors are unreadable."
AS_INCIDENT = "%(asctime)s %(name)s[%(process)d]: %(levelname)s %(pathname)s:%(lineno)d %(message)s"


def logging_by(handler, format=None):
    logger = logging.Logger("stn.disk")
    logger.addHandler(handler)
    if format:
        handler.setFormatter(logging.Formatter(format))
    return lambda number: logger.error(MESSAGE, "disk07", number)


def time_of(call):
    start = time.thread_time_ns()
    for number in range(CALLS):
        call(number)
    return (time.thread_time_ns() - start) / CALLS


def read_all(log):
    while log.recv(65536):
        pass


with tempfile.TemporaryDirectory() as folder:
    log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    log.bind(folder + "/log")
    reader = os.fork()
    if reader == 0:
        read_all(log)
    recorder = zelk.Recorder(folder + "/a.stack")
    calls = {
        "record": lambda number: recorder.record(MESSAGE, "disk07", number),
        "Handler": logging_by(zelk.Handler(folder + "/b.stack")),
        "SysLogHandler": logging_by(logging.handlers.SysLogHandler(folder + "/log")),
        "SysLogHandler as an incident": logging_by(logging.handlers.SysLogHandler(folder + "/log"), AS_INCIDENT),
    }
    rounds = [{name: time_of(call) for name, call in calls.items()} for _ in range(ROUNDS)]  # side by side
    os.kill(reader, signal.SIGTERM)
    os.waitpid(reader, 0)
    print(json.dumps({name: min(each[name] for each in rounds) for name in calls}))
