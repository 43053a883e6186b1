"""Misbehaviour on order: which request gets which fault, and what that does to the reply."""

import random
from typing import Any, Dict, List, NamedTuple, Optional, Sequence, Union

from . import scrambler

CODES = ("accept", "7", "8", "9", "3", "4", "L", "d", "b", "H", "g", "n")
_ENDINGS = ("close", "reset", "stall")

# What every action takes besides times and skip.
_ARGUMENTS = {
    "refuse": {"answer": b"0"},
    "delay": {"seconds": None},
    "cut": {"after": None, "then": "close"},
    "garbage": {"data": None, "size": 16, "seed": 0},
    "reply": {"data": None, "scramble": False},
    "split": {"sizes": None, "size": None, "pause": 0.005},
    "close": {"how": "close"},
    "silent": {},
}  # type: Dict[str, Dict[str, Any]]

Outcome = NamedTuple("Outcome", [
    ("steps", List[Union[bytes, float]]), ("then", Optional[str])])
Outcome.__doc__ = """What to send (bytes and pauses) and how to end: None, close, reset, stall."""


class Fault:
    """One ordered fault. Raises ValueError for an unknown action or argument."""

    def __init__(self, action: str, times: Optional[int], skip: int,
                 arguments: Dict[str, Any]) -> None:
        if action not in _ARGUMENTS:
            raise ValueError("unknown action %r, use one of %s"
                             % (action, ", ".join(sorted(_ARGUMENTS))))
        known = dict(_ARGUMENTS[action])
        for name, value in arguments.items():
            if name not in known:
                raise ValueError("%s takes no argument %r" % (action, name))
            known[name] = value
        self.action, self.times, self.skip, self.arguments = action, times, skip, known
        self._check()

    def _check(self) -> None:
        wanted = {"delay": "seconds", "cut": "after", "reply": "data"}.get(self.action)
        if wanted is not None and self.arguments[wanted] is None:
            raise ValueError("%s needs the argument %r" % (self.action, wanted))
        if self.action == "split" and not self.arguments["sizes"] and not self.arguments["size"]:
            raise ValueError("split needs the argument 'sizes' or 'size'")
        if any(size < 1 for size in self.arguments.get("sizes") or []):
            raise ValueError("a piece has at least one byte")
        for name in ("then", "how"):
            if self.arguments.get(name, "close") not in _ENDINGS:
                raise ValueError("%s must be one of %s" % (name, ", ".join(_ENDINGS)))

    def answers_itself(self) -> bool:
        """Whether the request takes no effect on the plant."""
        return self.action in ("refuse", "close", "silent")

    def apply(self, reply: bytes, scrambled: bool) -> Outcome:
        """Turn the normal reply into what this fault makes of it."""
        given = self.arguments
        if self.action == "refuse":
            answer = _bytes(given["answer"])
            return Outcome([scrambler.scramble(answer) if scrambled else answer], None)
        if self.action == "delay":
            return Outcome([float(given["seconds"]), reply], None)
        if self.action == "cut":
            return Outcome([reply[:given["after"]]], given["then"])
        if self.action == "garbage":
            return Outcome([_bytes(given["data"]) if given["data"] is not None
                            else _noise(given["size"], given["seed"])], None)
        if self.action == "reply":
            data = _bytes(given["data"])
            return Outcome([scrambler.scramble(data) if given["scramble"] else data], None)
        if self.action == "split":
            return Outcome(split(reply, given["sizes"] or [given["size"]], given["pause"]), None)
        return Outcome([], given["how"] if self.action == "close" else None)


def _bytes(data: Union[bytes, str]) -> bytes:
    return data.encode("latin-1") if isinstance(data, str) else bytes(data)


def _noise(size: int, seed: int) -> bytes:
    """Bytes that look like nothing; the first is never a request code or a refusal."""
    source = random.Random(seed)
    return bytes(source.randrange(0x80, 0x100) if i == 0 else source.randrange(256)
                 for i in range(size))


def split(data: bytes, sizes: Sequence[int], pause: float) -> List[Union[bytes, float]]:
    """Cut ``data`` into pieces of these sizes with pauses between; the last size repeats."""
    steps = []  # type: List[Union[bytes, float]]
    position = 0
    left = list(sizes)
    while position < len(data):
        size = left.pop(0) if len(left) > 1 else left[0]
        if steps:
            steps.append(float(pause))
        steps.append(data[position:position + size])
        position += size
    return steps


class FaultTable:
    """The faults that are still to come, per request code, first ordered first served."""

    def __init__(self) -> None:
        self._faults = {}  # type: Dict[str, List[Fault]]

    def order(self, code: str, action: str, times: Optional[int] = 1, skip: int = 0,
              **arguments: Any) -> None:
        """Order a fault; ``times`` None means from now on. ValueError: it makes no sense."""
        if code not in CODES:
            raise ValueError("unknown code %r, use one of %s" % (code, ", ".join(CODES)))
        fault = Fault(action, times, skip, arguments)
        if code == "accept" and action not in ("close", "silent"):
            raise ValueError("a connection can only be closed or kept silent on accept")
        self._faults.setdefault(code, []).append(fault)

    def take(self, code: str) -> Optional[Fault]:
        """The fault for a request that has come, or None."""
        waiting = self._faults.get(code)
        if not waiting:
            return None
        fault = waiting[0]
        if fault.skip > 0:
            fault.skip -= 1
            return None
        if fault.times is not None:
            fault.times -= 1
            if fault.times < 1:
                waiting.pop(0)
        return fault

    def clear(self) -> None:
        """Forget all."""
        self._faults.clear()
