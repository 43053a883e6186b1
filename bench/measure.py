"""How a job is measured: several sides do the same work, in alternating rounds."""
import statistics
import time

UNSETTLED = 50  # operations without a reply
TRIAL_SHARE = 0.25  # of a round: as long as a trial must take to tell how much fills the round


class Spread:
    """Median, least and greatest of some figures."""

    def __init__(self, figures):
        self.median = statistics.median(figures)
        self.min = min(figures)
        self.max = max(figures)

    def json(self):
        return {name: float("%.4g" % getattr(self, name)) for name in ("median", "min", "max")}


class Calls:
    """A side that calls a function: run(count) does the job so often, in this process.

    settle(), for operations without a reply, follows unmeasured whenever some were done: it returns
    when nothing is left in flight. Otherwise what one costs would depend on how far the server has
    come, and on how full the system's buffers are.
    """

    def __init__(self, run, settle=None):
        self._run = run
        self._settle = settle

    def seconds(self, count):
        """CPU seconds, user and system, that count operations took this process."""
        used = 0
        while count > 0:
            some = min(count, UNSETTLED) if self._settle else count
            start = time.process_time()
            self._run(some)
            used += time.process_time() - start
            if self._settle:
                self._settle()
            count -= some
        return used


def repeated(function, *args):
    """run(count) of a function that is called with the same arguments again and again."""
    def run(count):
        for _ in range(count):
            function(*args)
    return run


def same(left, right, what):
    """Nothing is measured whose result is wrong."""
    if left != right:
        raise SystemExit("bench: %s gave %.200r, not %.200r" % (what, left, right))


class Job:
    """Something that several sides do; the first one is the module.

    A side has seconds(count): what count operations cost. unit: "µs" of CPU for an operation,
    "/s" operations in a second, or another one, when seconds() gives figures in it.
    aim: (side, ratio): the module must take no more than ratio times what that side takes, for "/s"
    no less; (None, figure): no more than the figure, for "/s" no less. count: operations of a
    round, for sides that cannot repeat theirs at will; first: of the first trial to fill a round.
    """

    def __init__(self, name, sides, aim=None, unit="µs", count=None, first=1):
        self.name = name
        self.sides = sides
        self.unit = unit
        self._aim = aim
        self._count = count
        self._first = first
        self._figures = {side: [] for side in sides}

    def _count_for(self, side, seconds):
        """How many operations take so long; found by trying more and more."""
        if self._count:
            return self._count
        count = self._first
        while True:
            start = time.perf_counter()
            side.seconds(count)
            wall = time.perf_counter() - start
            if wall >= TRIAL_SHARE * seconds:
                return max(1, int(count * seconds / wall))
            count *= 4

    def _figure(self, seconds, count):
        if self.unit == "/s":
            return count / seconds
        return 1e6 * seconds / count if self.unit == "µs" else seconds / count

    def measure(self, rounds, seconds):
        counts = {name: self._count_for(side, seconds) for name, side in self.sides.items()}
        for i in range(rounds):
            for name in self.sides if i % 2 == 0 else reversed(list(self.sides)):
                used = self.sides[name].seconds(counts[name])
                self._figures[name].append(self._figure(used, counts[name]))

    def _ratios(self, side):
        return Spread([m / f for m, f in zip(self._figures["module"], self._figures[side])])

    def _met(self, result):
        side, limit = self._aim
        figure = result["ratios"][side] if side else result["sides"]["module"]
        figure = figure["median"]
        return figure >= limit if self.unit == "/s" else figure <= limit

    def result(self):
        """Figures of each side, and the module's as a multiple of them, formed round by round."""
        figures = self._figures
        result = {
            "unit": self.unit,
            "sides": {side: Spread(figures[side]).json() for side in figures},
            "ratios": {side: self._ratios(side).json() for side in figures if side != "module"},
        }
        if self._aim:
            result["aim"] = {"side": self._aim[0], "limit": self._aim[1], "met": self._met(result)}
        return result
