"""The native half by itself: what it refuses, before a fork and behind one."""

import pytest

NAMES = """
import _vzclient
routes, feed, session = plant._routes, plant._queue, plant._session
driver = session.driver(session.drivers()["line1"][0])
"""

# Calls of every method and attribute; all of them succeed, in this order, on a connected plant.
CALLS = (
    "_vzclient.Feed(routes, 1)", "_vzclient.Session(routes, feed, feed)", "feed.take(0, 1)",
    "feed.fileno()", "feed.dropped", "len(feed)", "feed.forget(77)", "feed.news('news', 77)",
    "routes.watched()", "routes.alarms_watched()", "routes.drop(feed, 77)", "session.drivers()",
    "session.driver(0)", "session.watch_alarms(feed, 77, True, LIMIT)", "session.alarm_texts()",
    "session.probe(LIMIT)", "session.project", "session.rights", "session.over", "session.heard",
    "session.counts()", "driver.read_one('a', LIMIT)", "driver.read(('a', 'b'), LIMIT, False)",
    "driver.write(('a',), (1,), LIMIT)", "driver.watch(routes, 'line1', ('a',), feed, 77, LIMIT)",
    "session.end('closed')", "session.join()", "feed.close()")

IN_CHILD = """
read, write = os.pipe()
child = os.fork()
if child == 0:
    for call in %r:
        error = error_of(eval, call, globals())
        os.write(write, ("%%s%%r of %%s\\n" %% (type(error).__name__, error.args, call)).encode())
    os._exit(0)
os.close(write)
with os.fdopen(read) as pipe:
    said = pipe.read().splitlines()
os.waitpid(child, 0)
"""


@pytest.fixture
def native(connected):
    """A connected client that knows the native objects of its plant by name."""
    connected(NAMES)
    return connected


def test_every_call_of_the_list_succeeds(native):
    for call in CALLS:
        native("_ = " + call)


def test_objects_of_the_parent_are_refused_in_a_forked_child(native):
    calls = [call for call in CALLS if not call.startswith("_vzclient.Feed")]
    native(IN_CHILD % (calls,))
    assert native("said") == ["Failure('forked', None) of " + call for call in calls]


@pytest.mark.parametrize("call", [
    "_vzclient.Session()", "_vzclient.Session(routes, 5)", "_vzclient.Session(5, feed)",
    "_vzclient.Session(routes, feed, 5)", "_vzclient.Driver()", "_vzclient.Feed(routes)",
    "_vzclient.Feed(5, 1)", "feed.take()", "feed.take('x', 1)", "feed.forget('x')", "feed.news(5)",
    "routes.drop(5, 0)", "session.connect()", "session.driver('x')", "session.watch_alarms()",
    "session.watch_alarms(5, 0, True, 1.0)", "session.probe('x')", "session.end(5)",
    "driver.read_one('a')", "driver.read_one('a', 'x')", "driver.read_one(5, 1.0)",
    "driver.read(['a'], 1.0, False)", "driver.read((5,), 1.0, False)", "driver.write(('a',))",
    "driver.write((5,), (5,), 1.0)", "driver.watch(routes, 'line1', 'a', feed, 0, 1.0)",
    "driver.watch(routes, 'line1', ('a',), 5, 0, 1.0)", "driver.read_one([], 1.0)",
    "driver.watch(routes, 5, ('a',), feed, 0, 1.0)"])
def test_arguments_of_another_type_are_refused(native, raised, call):
    assert raised(call)[0] == "TypeError"
    assert native("driver.read_one('a', LIMIT)") == 1


@pytest.mark.parametrize("call, why", [
    ("_vzclient.Feed(routes, 0)", "a queue holds at least one event"),
    ("_vzclient.Feed(routes, 1, 'newest')", 'overflow is "latest" or "oldest"'),
    ("driver.write(('a',), (), 1.0)", "as many values as names"),
    ("_vzclient.Session(routes, feed).connect('host', 'nowhere', '', '', 1.0)",
     "not an IPv4 address")])
def test_arguments_that_cannot_be_are_refused(native, raised, call, why):
    assert raised(call) == ("ValueError", why)


def test_a_driver_that_is_not_there_is_unknown(native):
    assert native("error_of(session.driver, 999).args") == ("unknown", None)


def test_nothing_is_no_request(native, sent):
    sent()
    assert native("driver.read((), LIMIT, False)") == {}
    assert native("driver.write((), (), LIMIT)") is None
    assert sent() == []


def test_routes_may_go_before_the_session_that_uses_them(native):
    native("""
class Name(str):
    gone = []
    def __del__(self): Name.gone.append(str(self))
mine = _vzclient.Routes()
queue, news = _vzclient.Feed(mine, 10), _vzclient.Feed(mine, 10)
other = _vzclient.Session(mine, news)
assert other.connect(host, host.partition(":")[0], "operator", "password", LIMIT) == (0, 0)
other.driver(0).watch(mine, Name("line1"), (Name("a"),), queue, 0, LIMIT)
del mine, queue, news
gc.collect()
assert Name.gone == []
del other
""")
    assert native("sorted(Name.gone)") == ["a", "line1"]
