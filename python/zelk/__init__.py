# SPDX-License-Identifier: MIT
"""Records incidents, with their causes, in the Error Stacks of this node.

    recorder = zelk.Recorder("stn.stack")
    lost = recorder.record("Disk %s: %d sectors are unreadable.", "disk07", 3)
    recorder.record("Volume %s is degraded.", "archive", cause=lost)

`Recorder.record_exception` records an exception and its chain of causes; `Handler` does so for `logging`, and
`install_excepthook` for what ends the program. `decode` says what an Error ID says.
"""

from ._decode import decode
from ._library import ZelkError
from ._logging import Handler, install_excepthook
from ._recorder import Recorder

__all__ = ["Handler", "Recorder", "ZelkError", "decode", "install_excepthook"]
