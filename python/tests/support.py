# SPDX-License-Identifier: MIT
"""What the tests share: a stack of a test's own, and the incidents in it. COMMANDS is the folder of the commands."""

import json
import os
import subprocess
import tempfile
import time
import unittest
from typing import Any, Dict, List

COMMANDS = os.environ["COMMANDS"]
os.environ["TZ"] = "Asia/Kathmandu"  # what is said in UTC must not be the time of the place
time.tzset()
HEADER = os.path.dirname(os.path.abspath(__file__)) + "/../../inc/qx_zelk.h"


def run(command: str, *arguments: str) -> str:
    return subprocess.run([f"{COMMANDS}/{command}", *arguments], check=True, capture_output=True, text=True).stdout


class StackTest(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.stack = f"{folder.name}/ä\udcff.stack"  # no Unicode, as a name of a file may be

    def incidents(self) -> List[Dict[str, Any]]:
        """What has been recorded, the oldest first."""
        return [json.loads(line) for line in run("zkexport", self.stack).splitlines()]

    def newest(self) -> Dict[str, Any]:
        return self.incidents()[-1]
