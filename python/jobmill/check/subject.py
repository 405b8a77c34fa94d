"""Programs that are started for a check, once for each connection."""

from __future__ import annotations

import shlex
import subprocess
import tempfile
from types import TracebackType
from typing import Optional, Type


class Command:
    """A command line that is started at the beginning of a block and is over at its end.

    `{port}` and `{host}` in it stand for an address.
    """

    def __init__(self, line: str, host: str, port: int) -> None:
        text = line.replace("{port}", str(port)).replace("{host}", host)
        # Nobody reads while it runs; a pipe would stop it when full.
        self._complaints = tempfile.TemporaryFile()
        self._process = subprocess.Popen(
            shlex.split(text),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=self._complaints,
        )

    def status(self, seconds: float) -> Optional[int]:
        """Its exit status; None when it does not end in time."""
        try:
            return self._process.wait(seconds)
        except subprocess.TimeoutExpired:
            return None

    def complaint(self) -> str:
        """The end of what it said on standard error, when it is over."""
        self._complaints.seek(0)
        lines = self._complaints.read().decode("utf-8", "replace").splitlines()
        return " / ".join(line.strip() for line in lines[-5:])[-500:] or "nothing"

    def __enter__(self) -> Command:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        if self.status(0.0 if kind else 1.0) is None:
            self._process.terminate()
            if self.status(5.0) is None:
                self._process.kill()
                self._process.wait()
        self._complaints.close()
