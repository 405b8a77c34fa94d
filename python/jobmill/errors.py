"""What can go wrong between two ends, as exceptions."""

from __future__ import annotations


class Error(Exception):
    """The base of all exceptions of this package."""


class ProtocolError(Error):
    """The other end sent bytes that its protocol does not allow."""


class ConnectFailed(Error):
    """Nobody answered at the address of the other end."""


class Refused(Error):
    """The daemon did not launch the run. `text` is what it said, often nothing."""

    def __init__(self, text: str) -> None:
        super().__init__(text or "the daemon ended the connection without a word")
        self.text = text


class TimedOut(Error):
    """An answer did not come in time. Afterwards a run can only be shut down."""


class RunEnded(Error):
    """The connection ended although an answer was due.

    The protocol has no error replies: this is what a master sees of a request that failed. The reason is in
    the comms log, when the daemon was started with -l.
    """

    def __init__(self, request: str, comms_log: str, last_bytes: bytes) -> None:
        super().__init__(
            f"the connection ended while the answer to '{request}' was due; "
            f"if the daemon writes comms logs, {comms_log} has the reason"
        )
        #: The request that was not answered, in words.
        self.request = request
        #: Where the daemon writes the reason, on its own machine.
        self.comms_log = comms_log
        #: The beginning of an answer that was cut off, often empty.
        self.last_bytes = last_bytes
