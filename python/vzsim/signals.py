"""Signal generators: what makes a tag's value move.

A generator is stepped with the plant's clock and tells the next raw value; ``write`` tells it
that somebody has set the tag. All are deterministic: the same steps give the same values.
"""

import math
import random
from typing import Any, Callable, Dict, List, Optional


class SignalError(ValueError):
    """A signal description that makes no sense; the text says what."""


class Constant:
    """Stays at ``value`` until written."""

    def __init__(self, value: Any) -> None:
        self.value = value

    def step(self, now: float, seconds: float) -> Any:
        """Return the raw value at ``now``, ``seconds`` after the step before."""
        return self.value

    def write(self, value: Any) -> None:
        """Take over a value somebody has written."""
        self.value = value


class Ramp(Constant):
    """Rises from ``low`` to ``high`` in ``period`` seconds, then starts again at ``low``."""

    def __init__(self, low: float, high: float, period: float) -> None:
        super().__init__(low)
        self._low, self._high, self._period = low, high, _positive("period", period)
        self._offset = 0.0
        self._now = 0.0

    def step(self, now: float, seconds: float) -> Any:
        self._now = now
        part = ((now + self._offset) / self._period) % 1.0
        self.value = self._low + (self._high - self._low) * part
        return self.value

    def write(self, value: Any) -> None:
        """Go on rising from the written value."""
        if self._high != self._low:
            part = (float(value) - self._low) / (self._high - self._low)
            self._offset = part * self._period - self._now


class Sine(Constant):
    """Swings around ``mean`` by ``amplitude`` once in ``period`` seconds, begun at ``phase``."""

    def __init__(self, mean: float, amplitude: float, period: float, phase: float = 0.0) -> None:
        super().__init__(mean + amplitude * math.sin(phase))
        self._mean, self._amplitude, self._phase = mean, amplitude, phase
        self._period = _positive("period", period)

    def step(self, now: float, seconds: float) -> Any:
        angle = 2.0 * math.pi * now / self._period + self._phase
        self.value = self._mean + self._amplitude * math.sin(angle)
        return self.value


class Walk(Constant):
    """Wanders by at most ``stride`` a second between ``low`` and ``high``; ``seed`` repeats it."""

    def __init__(self, start: float, stride: float, low: float, high: float,
                 seed: int = 0) -> None:
        super().__init__(start)
        if not low <= start <= high:
            raise SignalError("start must lie between low and high")
        self._stride, self._low, self._high = stride, low, high
        self._random = random.Random(seed)

    def step(self, now: float, seconds: float) -> Any:
        moved = float(self.value) + self._random.uniform(-1.0, 1.0) * self._stride * seconds
        self.value = min(max(moved, self._low), self._high)
        return self.value


class Counter(Constant):
    """Adds ``step`` every ``every`` seconds; beyond ``wrap`` it starts again at ``start``."""

    def __init__(self, start: int = 0, step: int = 1, every: float = 1.0,
                 wrap: Optional[int] = None) -> None:
        super().__init__(start)
        self._start, self._step, self._wrap = start, step, wrap
        self._every = _positive("every", every)
        self._since = 0.0

    def step(self, now: float, seconds: float) -> Any:
        self._since += seconds
        while self._since >= self._every - 1e-9:
            self._since -= self._every
            self.value = int(self.value) + self._step
            if self._wrap is not None and self.value > self._wrap:
                self.value = self._start
        return self.value


class Cycle(Constant):
    """Shows ``values`` one after the other, each for ``every`` seconds."""

    def __init__(self, values: List[Any], every: float = 1.0) -> None:
        if not values:
            raise SignalError("values must not be empty")
        super().__init__(values[0])
        self._values = list(values)
        self._every = _positive("every", every)

    def step(self, now: float, seconds: float) -> Any:
        self.value = self._values[int((now + 1e-9) / self._every) % len(self._values)]
        return self.value


class Follow(Constant):
    """Approaches ``gain * target() + offset`` with the time constant ``tau`` seconds."""

    def __init__(self, target: Callable[[], float], tau: float, start: Optional[float] = None,
                 gain: float = 1.0, offset: float = 0.0, noise: float = 0.0,
                 seed: int = 0) -> None:
        super().__init__(gain * target() + offset if start is None else start)
        self._target, self._tau = target, _positive("tau", tau)
        self._gain, self._offset, self._noise = gain, offset, noise
        self._random = random.Random(seed)

    def step(self, now: float, seconds: float) -> Any:
        goal = self._gain * float(self._target()) + self._offset
        self.value += (goal - self.value) * (1.0 - math.exp(-seconds / self._tau))
        return self.value + self._noise * self._random.uniform(-1.0, 1.0)

    def write(self, value: Any) -> None:
        """Start the approach anew from the written value."""
        self.value = float(value)


KINDS = {
    "ramp": Ramp, "sine": Sine, "walk": Walk, "counter": Counter, "cycle": Cycle,
}  # type: Dict[str, Callable[..., Constant]]


def build(description: Dict[str, Any]) -> Constant:
    """Make the generator of a plant file's signal table.

    ``kind`` chooses it, the other keys are its arguments; "text" is a cycle with its list under
    ``texts``. Raises SignalError saying which key is wrong.
    """
    arguments = dict(description)
    kind = arguments.pop("kind", None)
    if kind == "text":
        kind, arguments["values"] = "cycle", arguments.pop("texts", [])
    if kind == "constant":
        if set(arguments) != {"value"}:
            raise SignalError("a constant signal takes the key 'value' alone")
        return Constant(arguments["value"])
    maker = KINDS.get(kind)
    if maker is None:
        raise SignalError("kind must be one of constant, text, %s, not %r"
                          % (", ".join(sorted(KINDS)), kind))
    for key, value in arguments.items():
        if key != "values" and (isinstance(value, bool) or not isinstance(value, (int, float))):
            raise SignalError("%s must be a number, not %r" % (key, value))
    try:
        return maker(**arguments)
    except TypeError as error:
        raise SignalError(str(error).replace("__init__() ", "").replace(maker.__name__ + ".", ""))


def _positive(name: str, value: float) -> float:
    if not value > 0:
        raise SignalError("%s must be greater than 0" % name)
    return float(value)
