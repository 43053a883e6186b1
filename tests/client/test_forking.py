"""A plant in a forked child: good for nothing there, and untouched for the parent."""

import os

import pytest

from prelude import PRELUDE, host_of
from script import run

pytestmark = pytest.mark.skipif("VZ_PRELOAD" in os.environ,
                                reason="a sanitizer's allocator does not outlive a fork")

# Another thread holds the plant's lock while the script forks.
FORKED = PRELUDE + """
host = sys.argv[1]
plant = connect()
line = plant["line1"]
watch = line.watch("a")
alarms = plant.alarms()
subscription = line.on_change(lambda change: None, "b")
take(watch, 1)
locked, forked = threading.Event(), threading.Event()
def hold():
    with plant._lock:
        locked.set()
        assert forked.wait(LIMIT)
thread = Thread(hold)
locked.wait()
child = os.fork()
if child == 0:
    call = eval("lambda: " + sys.argv[2])
    try:
        print(call())
    except vzclient.VzError as error:
        print(type(error).__name__, error)
    except BaseException as error:
        print("not ours:", repr(error))
    sys.stdout.flush()
    if sys.argv[3] == "hard":
        os._exit(0)
    sys.exit()
forked.set()
assert os.waitpid(child, 0)[1] == 0
assert line["a"] == 1 and plant.stats.reconnects == 0
line["b"] = 5
until(lambda: line["b"] == 5)
assert plant.state.name == "live"
print("the parent lives on")
"""


@pytest.fixture
def in_child(sim):
    """What a call prints in a forked child whose parent lives on."""
    def call(code, end="hard"):
        done = run(FORKED, host_of(sim), code, end)
        assert (done.returncode, done.stderr) == (0, "")
        said, _, rest = done.stdout.rpartition("the parent lives on\n")
        assert rest == ""
        return said.strip()
    return call


@pytest.mark.parametrize("call", [
    "line['a']", "line.read('a', 'b')", "line.write({'a': 1})", "line.watch('a')",
    "line.on_change(print, 'a')", "plant.alarms()", "plant.on_alarm(print)", "plant.project",
    "plant.rights", "plant.state", "plant.stats", "watch.get(1)", "next(iter(watch))",
    "watch.dropped", "watch.waiting", "alarms.get(1)"])
def test_every_use_is_an_error_that_tells_what_to_do(in_child, call):
    said = in_child(call)
    assert said.startswith("VzError ") and said.endswith("connect anew in the child")


@pytest.mark.parametrize("call", ["line.read('a')", "watch.get(LIMIT)", "line.watch('b').get()"])
def test_every_use_of_a_plant_of_asyncio_is_an_error_too(sim, call):
    said = run(PRELUDE + """
host = sys.argv[1]
async def main():
    plant = await vzclient.aio.connect(host, "operator", "password", timeout=LIMIT)
    line = plant["line1"]
    watch = line.watch("a")
    await watch.get(LIMIT)
    if os.fork() == 0:
        try:
            print(await eval(sys.argv[2]))
        except vzclient.VzError as error:
            print(type(error).__name__, error)
        sys.stdout.flush()
        os._exit(0)
    os.wait()
    await plant.close()
asyncio.run(main())
""", host_of(sim), call)
    assert said.returncode == 0 and said.stdout.startswith("VzError "), said.stderr
    assert said.stdout.endswith("connect anew in the child\n")


@pytest.mark.parametrize("call", ["plant.close()", "watch.close()", "subscription.cancel()"])
def test_ending_something_does_nothing(in_child, call):
    assert in_child(call) == "None"


def test_a_child_that_exits_says_nothing_and_ends_nothing(in_child):
    assert in_child("None", "soft") == "None"


def test_a_child_may_drop_what_it_has_got(in_child):
    assert in_child("[globals().pop(name) and None for name in "
                    "('plant', 'line', 'watch', 'alarms', 'subscription')] and gc.collect() >= 0",
                    "soft") == "True"


def test_a_child_may_connect_anew(in_child):
    assert in_child("connect()['line1']['a']", "soft") == "1"
