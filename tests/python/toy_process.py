#!/usr/bin/env python3
"""The toy field as a program of its own, right or with something wrong: toy_process.py VARIANT PORT."""

from __future__ import annotations

import sys
import time
from typing import Callable, Dict, List

from support import SOON  # support also sets the paths of the kit

from jobmill import simulator
from jobmill.controller_link import Asked, Message
from jobmill.errors import ProtocolError
from jobmill.simulator import Conversation
from toy_field import ToyField


class NeedsContinue(Conversation):
    """Leaves at a CONTINUE_UNTIL before the first CONTINUE."""

    def _continue_until(self, asked: Asked) -> List[Message]:
        if self._position == "MODEL_DEFINITION":
            raise ProtocolError("left")
        return super()._continue_until(asked)


class StaysAtDefinition(Conversation):
    """Keeps saying MODEL_DEFINITION when it is stepped without a CONTINUE."""

    def _continue_until(self, asked: Asked) -> List[Message]:
        before = self._position
        answers = super()._continue_until(asked)
        if before == "MODEL_DEFINITION":
            self._position = before
            return [self._step()]
        return answers


class LingersAfterShutdown(Conversation):
    def _shutdown(self, asked: Asked) -> List[Message]:
        lingering.append(True)
        return super()._shutdown(asked)


lingering: List[bool] = []
CONVERSATIONS: Dict[str, Callable[..., Conversation]] = {
    "needs CONTINUE": NeedsContinue,
    "stays at the definition": StaysAtDefinition,
    "lingers after SHUTDOWN": LingersAfterShutdown,
}


def main(variant: str, port: str) -> None:
    if variant == "dies":
        sys.exit("no deck\nof that name")
    simulator.Conversation = CONVERSATIONS.get(variant, Conversation)  # type: ignore[misc]
    try:
        simulator.run(ToyField, ["--port", port])
    finally:
        if lingering or variant == "lingers without its controller":
            time.sleep(3 * SOON)


if __name__ == "__main__":
    main(*sys.argv[1:])
